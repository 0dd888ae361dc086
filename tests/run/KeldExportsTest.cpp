#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

// A host finds the four symbols of the shared library under their plain names.
TEST(KeldExports, SharedLibraryExportsEntryPointsAndFolders) {
  void* handle = dlopen(KELD_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  using PathFunction = int (*)(const char*, const char*);
  auto pathEntry = reinterpret_cast<PathFunction>(dlsym(handle, "path"));
  ASSERT_NE(pathEntry, nullptr);
  EXPECT_NE(dlsym(handle, "main_agent"), nullptr);
  auto* input = static_cast<std::string*>(dlsym(handle, "inputFilePath"));
  auto* output = static_cast<std::string*>(dlsym(handle, "outputFilePath"));
  ASSERT_NE(input, nullptr);
  ASSERT_NE(output, nullptr);

  // Defaults, then the folders as path sets them: "/" is always appended.
  EXPECT_EQ(*input, "./inputFile/");
  EXPECT_EQ(*output, "./outputFile/");
  testing::internal::CaptureStdout();
  EXPECT_EQ(pathEntry("a/", "b"), 0);
  const std::string console = testing::internal::GetCapturedStdout();
  EXPECT_EQ(*input, "a//");
  EXPECT_EQ(*output, "b/");
  EXPECT_EQ(console, "The input path has been set to a/\nThe output path has been set to b\n");
  dlclose(handle);
}
