# The human's door. Each target is one command; what it needs is installed by the scripts.
.POSIX:
PREFIX = /usr/local

help:
	@echo 'make demo      build, and convert a lab switch (installs what is missing)'
	@echo 'make test      build, and run all tests (installs what is missing)'
	@echo 'make build     the release library and command line, under build/'
	@echo 'make bench     the figures, each beside its floor'
	@echo 'make valgrind  the library'\''s tests in random order and the command line, under valgrind'
	@echo 'make widths    the same inputs in 64 and in 32 bits'
	@echo 'make fuzz      SECONDS=N or RUNS=M for each fuzz target; TARGETS names some of them'
	@echo 'make coverage  branches that the tests take, library, lab and command line'
	@echo 'make mutants   the unit tests on COUNT changed libraries, chosen by SEED'
	@echo 'make faults    every platform call of the library fails; COUNT=all, or one of COUNT (all)'
	@echo 'make crashes   kills, power loss, full and failing disks: COUNT points of each kind, by SEED'
	@echo 'make lint      format, static analysis, layering'
	@echo 'make install   into PREFIX ($(PREFIX)), below DESTDIR'
	@echo 'make clean     remove what was built'

demo:
	scripts/demo.sh

test:
	scripts/test.sh

build:
	scripts/packages.sh install demo
	cmake --preset release -DDATAMORPH_TESTS=OFF -DDATAMORPH_BENCH=OFF
	cmake --build --preset release

bench:
	scripts/bench.sh

valgrind:
	scripts/valgrind.sh $(SEED)

widths:
	scripts/widths.sh $(SEEDS)

faults:
	scripts/faults.sh '$(COUNT)'

fuzz:
	SECONDS='$(SECONDS)' RUNS='$(RUNS)' scripts/fuzz.sh $(TARGETS)

coverage:
	scripts/coverage.sh

mutants:
	scripts/packages.sh install mutants
	count='$(COUNT)' seed='$(SEED)' jobs='$(JOBS)'; \
	scripts/mutants.py --seed "$${seed:-1}" --count "$${count:-300}" --jobs "$${jobs:-2}" --files '$(FILES)'

crashes:
	scripts/crashes.sh '$(COUNT)' '$(SEED)'

lint:
	scripts/lint.sh

install: build
	cmake --install build --prefix '$(PREFIX)'

clean:
	rm -rf build build-debug build-sanitized build-x86-32 build-valgrind build-fuzz build-coverage \
	  build-coverage-short build-mutants

.PHONY: help demo test build bench valgrind widths faults fuzz coverage mutants crashes lint install clean
