# make test          the whole suite: normal, ASan+UBSan and TSan builds, and
#                    the installed-package consumer check
# make demo          the realtime demo against a bundled local server
# make demo URL=ws://host/socket TOPIC=room:lobby PARAMS="token=abc"
#                    the interactive client against a real server
# make demo-signin   the sign-in example against a local OpenID provider
# make bench         the benchmarks (normal build)
# make soak          1000 connection faults under load (normal build); ARGS="--cycles N"
# make build         the normal build only

SHELL := /bin/bash
.DEFAULT_GOAL := test

.PHONY: setup build test demo demo-signin bench soak clean

setup:
	@scripts/setup.sh

build: setup
	@scripts/build.sh normal

test: setup
	@scripts/test-all.sh

demo: setup
	@scripts/build.sh normal vantor-demo
	@scripts/run-demo.sh

demo-signin: setup
	@scripts/build.sh normal vantor-signin-demo
	@build/normal/demo/signin/vantor-signin-demo $(ARGS)

bench: setup
	@scripts/build.sh normal vantor-bench
	@build/normal/bench/vantor-bench $(ARGS)

soak: setup
	@scripts/build.sh normal vantor-soak
	@build/normal/tests/soak/vantor-soak $(ARGS)

clean:
	rm -rf build
