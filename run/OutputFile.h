#pragma once
// Every file a run writes goes to disk through these two calls: one block per
// call (a line, a record, a whole file), written whole and checked. A disk
// that fills up, a file-size limit or a folder that turned read-only thus
// stops the run with the file and the reason named, instead of leaving a cut
// file behind a run that reports success.
#include <ostream>
#include <sstream>
#include <string>

// Which stage ends the run on a failed write: set-up (status 1) or tracking
// (status 2), each through its errorOut with the ErrorLog.txt line.
enum class WriteStage { kSetUp, kTracking };

// Appends `data` to the file at `path`, made if missing. A failed write cuts
// the file back to what it held before, so it never ends in a partial line or
// record.
void AppendOutput(const std::string& path, const std::string& data, WriteStage stage,
                  const std::string& openFailure = "");

// Makes the file at `path` anew with `data`; an empty `data` empties it. A
// file that cannot be written whole is removed. `openFailure`, when given, is
// the message for a file that does not open at all.
void WriteOutput(const std::string& path, const std::string& data, WriteStage stage,
                 const std::string& openFailure = "");

// A text file for writers that compose their lines piece by piece over a long
// loop: it is emptied when the stream is made, and every whole line goes to
// it through AppendOutput as soon as its line end is written, so that a run
// stopped on the way leaves whole lines. close() writes what is left.
class OutputText : public std::ostream {
 public:
  OutputText(const std::string& path, WriteStage stage);
  ~OutputText() override;
  void close();

 private:
  class LineBuffer : public std::stringbuf {
   public:
    LineBuffer(const std::string& path, WriteStage stage);
    void Pass(bool all);

   protected:
    int sync() override;

   private:
    std::string path_;
    WriteStage stage_;
  };
  LineBuffer buffer_;
};

// A process over its file-size limit is killed by SIGXFSZ before the write
// can fail; ignoring the signal turns that into a failed write that the calls
// above report. Called once at the start of a run.
void ReportFileSizeLimitAsFailedWrite();
