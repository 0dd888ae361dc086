# Keld: build, run the example, test, benchmark.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
EXAMPLE    ?= examples/basic
RUN_OUT    ?= out/basic

.PHONY: all deps build run test test-release sanitize bench clean

all: build

deps:
	@./scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@rm -rf $(RUN_OUT) && mkdir -p $(RUN_OUT)
	@./$(BUILD)/keld $(EXAMPLE) $(RUN_OUT)
	@echo
	@echo "Outputs are in $(RUN_OUT)/:"
	@echo "  $(RUN_OUT)/DataSet.txt       statistics, one line per time step"
	@echo "  $(RUN_OUT)/outData_*.dst     the bunch at each output plane"
	@echo "  $(RUN_OUT)/synParticle.txt   the reference particle's track"

# The whole suite, then the same suite under the address and undefined-
# behaviour sanitizers.
test: test-release sanitize

test-release: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

sanitize: deps
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELD_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	@cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)

bench: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DKELD_BENCH=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@for b in $(BUILD)/bench/keld_bench_*; do [ -x "$$b" ] && "$$b"; done; true

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) out
