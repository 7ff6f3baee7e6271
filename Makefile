# The two commands of the README, and the board build.
#   make demo    builds, makes a sample board and medium, runs tvupdate on it
#   make check   builds (host, asan, armhf, armel) and runs every test
#   make armhf   builds tvupdate, tvservice and libtvsim.so for hard-float boards
#   make armel   the same for soft-float boards
#   make vm-check runs both board builds on Debian's armmp kernel under qemu-system-arm and
#                compares them with tvsim (make check does too when the machine can)
#   make fuzz    builds the fuzz targets (clang) and runs each for a few seconds
# Missing Debian packages are installed first when run as root.

JOBS ?= $(shell nproc)
DEB_PACKAGES := cmake make g++ libgtest-dev libgmock-dev nlohmann-json3-dev \
	g++-arm-linux-gnueabihf g++-arm-linux-gnueabi qemu-user srecord mtd-utils clang-format i2c-tools flashrom \
	qemu-system-arm mtools dosfstools cpio clang libclang-rt-14-dev python3 librsvg2-bin

.PHONY: all demo check vm-check armhf armel host asan fuzz deps clean

all: host

deps:
	@missing=$$(for p in $(DEB_PACKAGES); do \
		dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q 'install ok installed' || echo $$p; \
	done); \
	if [ -n "$$missing" ]; then \
		if [ "$$(id -u)" = 0 ]; then \
			echo "Installing:" $$missing; \
			apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing >/dev/null; \
		else \
			echo "Missing Debian packages:" $$missing "(run as root, or install them)"; exit 1; \
		fi; \
	fi

host: deps
	cmake --preset host >/dev/null
	cmake --build --preset host -j $(JOBS)

asan: deps
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $(JOBS)

armhf: deps
	cmake --preset armhf >/dev/null
	cmake --build --preset armhf -j $(JOBS)

armel: deps
	cmake --preset armel >/dev/null
	cmake --build --preset armel -j $(JOBS)

# Skipped, with a line saying so, where clang or its fuzzer runtime is missing.
fuzz: deps
	@if echo 'extern "C" int LLVMFuzzerTestOneInput(const char *, long) { return 0; }' | \
		clang++ -x c++ -fsanitize=fuzzer -o /dev/null - 2>/dev/null; then \
		cmake --preset fuzz >/dev/null && cmake --build --preset fuzz -j $(JOBS) && \
		ctest --preset fuzz -j $(JOBS); \
	else echo "fuzz targets skipped: no clang with libFuzzer"; fi

check: armhf armel host asan
	TVSIM_REQUIRE_BOARD_BUILDS=1 ctest --preset host -j $(JOBS)
	ctest --preset asan -j $(JOBS)
	$(MAKE) --no-print-directory fuzz
	vm/check.sh --if-possible build/host build/armhf build/armel

vm-check: armhf armel host
	vm/check.sh build/host build/armhf build/armel

demo: host
	tools/demo.sh build/host

clean:
	rm -rf build demo
