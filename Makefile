# The human's door. Each target is one command; what it needs is installed by the scripts.
.POSIX:
PREFIX = /usr/local

help:
	@echo 'make demo      build, and convert a lab switch (installs what is missing)'
	@echo 'make test      build, and run all tests (installs what is missing)'
	@echo 'make build     the release library and command line, under build/'
	@echo 'make bench     the figures, each beside its floor'
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

COUNT = 2500
SEED = 1
crashes:
	scripts/crashes.sh $(COUNT) $(SEED)

lint:
	scripts/lint.sh

install: build
	cmake --install build --prefix '$(PREFIX)'

clean:
	rm -rf build build-debug build-sanitized build-x86-32

.PHONY: help demo test build bench crashes lint install clean
