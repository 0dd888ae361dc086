# Keld: build, run the example, test, benchmark.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
EXAMPLE    ?= examples/basic
RUN_OUT    ?= out/basic
# The Debian python3, which the Debian NumPy, Matplotlib, h5py and pytest serve.
PYTHON     ?= $(shell [ -x /usr/bin/python3 ] && echo /usr/bin/python3 || echo python3)

.PHONY: all deps build programs run run-fieldmap test test-release sanitize pytest fuzz bench clean

all: build

deps:
	@./scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@ln -sf "$(CURDIR)/python/keld-tool" $(BUILD)/keld-plot
	@ln -sf "$(CURDIR)/python/keld-tool" $(BUILD)/keld-openpmd

# The library, keld and the tools without the test suite: what the examples run.
programs: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target keld_programs
	@ln -sf "$(CURDIR)/python/keld-tool" $(BUILD)/keld-plot
	@ln -sf "$(CURDIR)/python/keld-tool" $(BUILD)/keld-openpmd

run: programs
	@rm -rf $(RUN_OUT) && mkdir -p $(RUN_OUT)
	@./$(BUILD)/keld $(EXAMPLE) $(RUN_OUT)
	@echo
	@echo "Outputs are in $(RUN_OUT)/:"
	@echo "  $(RUN_OUT)/DataSet.txt       statistics, one line per time step"
	@echo "  $(RUN_OUT)/outData_*.dst     the bunch at each output plane"
	@echo "  $(RUN_OUT)/synParticle.txt   the reference particle's track"
	@echo "Figures, with the lattice of $(EXAMPLE) under the plots along z:"
	@KELD_PYTHON=$(PYTHON) ./$(BUILD)/keld-plot all $(RUN_OUT) --decks $(EXAMPLE)

# The field-map example: writes its quadrupole map with keld-fieldmap, runs it
# into out/fieldmap/out/ and reports the losses on the pipe.
run-fieldmap: programs
	@examples/fieldmap/run.sh $(BUILD) out/fieldmap

# The whole suite, then the same suite under the address and undefined-
# behaviour sanitizers.
test: test-release sanitize pytest

test-release: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

sanitize: deps
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELD_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	@cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)

# The Python package's tests; they run keld once on a tiny deck.
pytest: programs
	@cd python && PYTHONDONTWRITEBYTECODE=1 KELD_BINARY="$(abspath $(BUILD))/keld" \
	  $(PYTHON) -m pytest -q -p no:cacheprovider tests

# Mutated example decks through keld: every run must end cleanly (status 0, 1
# or 2, no hang, no crash, no NaN after a success). Decks of failed runs are
# kept in out/fuzz/.
FUZZ_COUNT ?= 2000
FUZZ_MAPS  = fieldmap cavity errors secondary
fuzz: programs
	@rm -rf out/fuzz
	@for e in $(FUZZ_MAPS); do examples/$$e/run.sh $(BUILD) out/fuzz-$$e > /dev/null; done
	@$(PYTHON) scripts/fuzz-decks --count $(FUZZ_COUNT) --keld $(BUILD)/keld --report out/fuzz \
	  --decks examples/basic $(foreach e,$(FUZZ_MAPS),out/fuzz-$(e)/in)

bench: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DKELD_BENCH=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@for b in $(BUILD)/bench/keld_bench_*; do [ -x "$$b" ] && "$$b"; done; true
	@scripts/bench-cavity $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) out
