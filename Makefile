# The two commands a newcomer needs: `make demo` and `make test`.
# Each target installs what it needs on a fresh Debian machine.

NATIVE_PACKAGES := cmake ninja-build g++ make libgtest-dev libgmock-dev googletest nlohmann-json3-dev libcli11-dev \
  libsystemd-dev libssl-dev openssl systemd prometheus chromium python3 curl unixodbc unixodbc-dev tdsodbc \
  dpkg-dev file lintian
WINDOWS_PACKAGES := g++-mingw-w64-x86-64-posix gcc-mingw-w64-x86-64-posix wine64 googletest nlohmann-json3-dev libcli11-dev \
  nsis
FUZZ_PACKAGES := cmake ninja-build make clang libclang-rt-14-dev libgtest-dev libgmock-dev googletest \
  nlohmann-json3-dev libsystemd-dev libssl-dev unixodbc-dev
DEMO_PACKAGES := cmake ninja-build g++ make nlohmann-json3-dev libcli11-dev libsystemd-dev libssl-dev unixodbc-dev
PACKAGE_DEB_PACKAGES := $(DEMO_PACKAGES) dpkg-dev file lintian
JOBS ?= 2

.PHONY: package package-deb test test-native test-tsan test-fuzz test-windows fuzz build-fuzz demo bench soak deps-native \
  deps-windows build build-windows configure-windows package-windows clean

test: test-native test-tsan test-fuzz test-windows

deps-native:
	@scripts/ensure-packages $(NATIVE_PACKAGES)

deps-windows:
	@scripts/ensure-packages $(WINDOWS_PACKAGES)

# Native tests run with AddressSanitizer and UndefinedBehaviorSanitizer.
build: deps-native
	@cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKZQ_SANITIZE=ON >/dev/null
	@cmake --build build -j $(JOBS)

test-native: build
	cd build && ctest --output-on-failure -j $(JOBS)

# The tests whose code runs on several threads at once, again under
# ThreadSanitizer; agents they start are built the same way and stop at the
# first report. Threads the agent never ends (by design) are not reported.
TSAN_TESTS := e2e_channel_tests e2e_errorlog_tests e2e_http_tests framework_tests
test-tsan: deps-native
	@cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKZQ_TSAN=ON >/dev/null
	@cmake --build build-tsan -j $(JOBS) --target $(TSAN_TESTS) kzqagent kzqcoll kzqctl kvc_channel_peer
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 report_thread_leaks=0 suppressions=$(CURDIR)/tests/tsan.supp" \
	  ctest --output-on-failure -j $(JOBS) -L '^($(subst $(eval) ,|,$(TSAN_TESTS)))$$'

# libFuzzer targets (clang), one per parser of data another program wrote;
# fuzz/corpus/<target>/ holds each one's seeds and every input that once
# crashed it. `make fuzz` explores from a scratch copy of each corpus for
# FUZZ_SECONDS per target, one target at a time, and leaves what it found in
# build-fuzz/found/; test-fuzz only replays the committed corpora.
FUZZ_TARGETS := errorlog_line_fuzz errorlog_parser_fuzz errorlog_state_fuzz situation_fuzz replay_rows_fuzz \
  time_text_fuzz option_words_fuzz registry_values_fuzz channel_data_fuzz channel_request_fuzz http_request_fuzz web_config_fuzz
FUZZ_SECONDS ?= 60
build-fuzz:
	@scripts/ensure-packages $(FUZZ_PACKAGES)
	@cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang \
	  -DCMAKE_CXX_COMPILER=clang++ -DKZQ_FUZZ=ON >/dev/null
	@cmake --build build-fuzz -j $(JOBS) --target $(FUZZ_TARGETS)

test-fuzz: build-fuzz
	@for t in $(FUZZ_TARGETS); do \
	  echo "replaying fuzz/corpus/$$t"; \
	  build-fuzz/fuzz/$$t -runs=0 fuzz/corpus/$$t >build-fuzz/$$t.log 2>&1 || \
	    { cat build-fuzz/$$t.log; exit 1; }; \
	done

fuzz: build-fuzz
	@for t in $(FUZZ_TARGETS); do \
	  rm -rf build-fuzz/found/$$t && mkdir -p build-fuzz/found/$$t && \
	  cp fuzz/corpus/$$t/* build-fuzz/found/$$t/ && \
	  build-fuzz/fuzz/$$t -max_total_time=$(FUZZ_SECONDS) -artifact_prefix=build-fuzz/found/$$t- \
	    build-fuzz/found/$$t >build-fuzz/found/$$t.log 2>&1; rc=$$?; \
	  echo "$$t: $$(grep -E 'DONE' build-fuzz/found/$$t.log)"; \
	  [ $$rc -eq 0 ] || { grep -E -A30 'ERROR|SUMMARY' build-fuzz/found/$$t.log; exit 1; }; \
	done

configure-windows: deps-windows
	@cmake -S . -B build-win -G Ninja -DCMAKE_BUILD_TYPE=Release \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake >/dev/null

build-windows: configure-windows
	@cmake --build build-win -j $(JOBS)

# The Windows installer build-win/kzq-<version>-setup.exe: the cross-built
# Release programs packed by makensis (packaging/windows/kzq-setup.nsi); only
# the programs are built, not the tests.
package-windows: configure-windows
	@cmake --build build-win -j $(JOBS) --target windows_installer

test-windows: build-windows
	scripts/wine-test build-win

# The demo builds only the four programs it runs, optimised and without
# the tests: a newcomer waits for the agent, not for the test suite.
DEMO_PROGRAMS := kzqagent kzqcoll kzqdemolog kzqctl
demo:
	@scripts/ensure-packages $(DEMO_PACKAGES)
	@cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release -DKZQ_TESTS=OFF >/dev/null
	@cmake --build build-demo -j $(JOBS) --target $(DEMO_PROGRAMS)
	@scripts/demo build-demo

# The Debian package, from an optimised build without the tests:
# build-package/kzq_<version>_amd64.deb, refused when lintian finds an error
# or a warning. The build adds Debian's hardening flags (stack protector,
# _FORTIFY_SOURCE, read-only relocations bound at start) to the project's.
package: package-deb package-windows

DEB_FLAGS = DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get
package-deb:
	@scripts/ensure-packages $(PACKAGE_DEB_PACKAGES)
	@cmake -S . -B build-package -G Ninja -DCMAKE_BUILD_TYPE=Release -DKZQ_TESTS=OFF \
	  -DCMAKE_CXX_FLAGS="$$($(DEB_FLAGS) CXXFLAGS) $$($(DEB_FLAGS) CPPFLAGS)" \
	  -DCMAKE_C_FLAGS="$$($(DEB_FLAGS) CFLAGS) $$($(DEB_FLAGS) CPPFLAGS)" \
	  -DCMAKE_EXE_LINKER_FLAGS="$$($(DEB_FLAGS) LDFLAGS)" >/dev/null
	@cmake --build build-package -j $(JOBS)
	@rm -f build-package/kzq_*.deb
	@cd build-package && cpack -G DEB >/dev/null
	lintian --fail-on error,warning build-package/kzq_*.deb
	@ls build-package/kzq_*.deb

# Benchmarks run on an optimised build without sanitizers.
bench: deps-native
	@cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build-bench -j $(JOBS) --target channel_bench errorlog_bench http_bench http_attack_bench sql_source_bench kzqagent kzqcoll
	build-bench/bench/channel_bench
	build-bench/bench/errorlog_bench
	build-bench/bench/http_bench
	build-bench/bench/http_attack_bench
	build-bench/bench/sql_source_bench

# A soak of the optimised agent beside the collector and the demo's errorlog
# writer, under scrapes, table reads and event consumers coming and going;
# scripts/soak says what it checks. `make soak SOAK_MODE=idle` measures the
# agent at rest instead. Not part of `make test`.
SOAK_MINUTES ?= 5
SOAK_MODE ?= busy
soak: deps-native
	@scripts/ensure-packages python3
	@cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build-bench -j $(JOBS) --target kzqagent kzqcoll kzqdemolog
	scripts/soak --minutes $(SOAK_MINUTES) --mode $(SOAK_MODE) build-bench

clean:
	rm -rf build build-win build-bench build-tsan build-fuzz build-demo build-package
