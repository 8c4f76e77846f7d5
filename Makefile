# make test          the whole suite: normal, ASan+UBSan and TSan builds, the
#                    fuzz targets (30 s each; FUZZ_SECONDS=0 skips them) and
#                    the installed-package consumer check
# make demo          the realtime demo against a bundled local server
# make demo URL=ws://host/socket TOPIC=room:lobby PARAMS="token=abc"
#                    the interactive client against a real server
# make demo-coroutine the completion-token interface from a C++20 coroutine
# make demo-signin   the sign-in example against a local OpenID provider
# make demo-desktop  the Qt Widgets sample against a bundled server and a local
#                    OpenID provider; ARGS="--screenshot out.png --user alice"
#                    without a display, ARGS="--url URL" for a real server
# make bench         the benchmarks (normal build), then the GUI main-loop
#                    integrations' costs (about four minutes) and long-poll
#                    against WebSocket
# make soak          1000 connection faults under load (normal build); ARGS="--cycles N"
# make build         the normal build only
# make fuzz          the fuzz targets (clang, libFuzzer), 300 s each;
#                    SECONDS_PER_TARGET=60 for less

SHELL := /bin/bash
SECONDS_PER_TARGET ?= 300
.DEFAULT_GOAL := test

.PHONY: setup build test fuzz demo demo-coroutine demo-signin demo-desktop bench soak clean

setup:
	@scripts/setup.sh

build: setup
	@scripts/build.sh normal

test: setup
	@scripts/test-all.sh

fuzz: setup
	@scripts/fuzz.sh $(SECONDS_PER_TARGET)

demo: setup
	@scripts/build.sh normal vantor-demo
	@scripts/run-demo.sh

demo-coroutine: setup
	@scripts/build.sh normal vantor-coroutine-demo
	@build/normal/demo/coroutine/vantor-coroutine-demo $(ARGS)

demo-signin: setup
	@scripts/build.sh normal vantor-signin-demo
	@build/normal/demo/signin/vantor-signin-demo $(ARGS)

demo-desktop: setup
	@scripts/build.sh normal vantor-desktop-demo
	@build/normal/demo/desktop/vantor-desktop-demo $(ARGS)

bench: setup
	@scripts/build.sh normal vantor-bench vantor-bench-gui vantor-bench-longpoll
	@build/normal/bench/vantor-bench $(ARGS)
	@build/normal/bench/vantor-bench-gui
	@build/normal/bench/vantor-bench-longpoll

soak: setup
	@scripts/build.sh normal vantor-soak
	@build/normal/tests/soak/vantor-soak $(ARGS)

clean:
	rm -rf build
