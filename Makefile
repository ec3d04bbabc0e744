# `make help` lists the targets. ARGS goes to the program a target runs: make test ARGS="-k launch".
SHELL := /bin/bash
.SHELLFLAGS := -eu -o pipefail -c
.DEFAULT_GOAL := help
MAKEFLAGS += --no-print-directory
.SUFFIXES:

PRESET ?= $(if $(filter off,$(FAST)),general,release)
python := .venv/bin/python
unexport PYTHONPATH PYTHONHOME VIRTUAL_ENV
# The tests start hundreds of interpreters; without cached bytecode each would compile the SDK and the tests again.
unexport PYTHONDONTWRITEBYTECODE

.PHONY: help
help: ## lists these targets
	@sed -nE 's/^([a-z-]+):[^#]*## (.*)/  make \1\t\2/p' Makefile | expand -t 24

.PHONY: setup
setup: ## makes .venv with a working CPython and the pinned packages
	@scripts/setup

# The demo needs neither the tests' packages nor their extension, which is nearly half of what there is to compile;
# who has built that extension gets it with each build from then on, so that it is never an old one.
.PHONY: setup-demo
setup-demo: ## makes .venv with no more packages than the demo needs
	@scripts/setup --demo

.PHONY: build
build: setup ## builds the module in place (PRESET=dev turns C++ assertions on, FAST=off leaves python/fast/ out)
	@scripts/build $(if $(wildcard tests/python/_object_layer.*.so),--tests) $(PRESET)

.PHONY: build-tests
build-tests: setup ## builds the extension that only tests import, too
	@scripts/build --tests $(PRESET)

.PHONY: test
test: build-tests ## runs the tests, in several processes (ARGS="-n 0" in one, ARGS="-k launch" some of them)
	@$(python) -W error -m pytest -n auto $(ARGS)

.PHONY: test-thorough
test-thorough: build-tests ## runs the tests with their long searches, on both container engines and a built wheel
	@TOVARIN_THOROUGH=1 $(python) -X dev -W error -m pytest -n auto $(ARGS)

.PHONY: demo
demo: setup-demo ## works through a node's life on an emulated EC2 (ARGS=--json, ARGS=--local)
	@scripts/build $(PRESET)
	@$(python) -m demo $(ARGS)

.PHONY: test-all
test-all: ## builds and tests with each CPython 3.10 to 3.13 on this machine
	@scripts/test_all $(ARGS)

.PHONY: test-lowest
test-lowest: build ## runs the siblings' tests on the lowest versions of all dependencies that are allowed
	@scripts/test_lowest $(ARGS)

.PHONY: coverage
coverage: setup ## runs the tests and says how many lines of package and extension they reach
	@scripts/coverage $(ARGS)

.PHONY: fuzz
fuzz: build ## searches every parser of outside bytes, and prints runs and memory of each (SECONDS=60 for each)
	@TOVARIN_FUZZ_SECONDS=$(or $(SECONDS),60) $(python) -X dev -W error -m pytest -n auto tests/fuzz $(ARGS)

.PHONY: lock
lock: setup ## pins what requirements/ brings along, with hashes (ARGS=--upgrade for the newest versions)
	@scripts/lock $(ARGS)

.PHONY: lint
lint: build ## checks formatting, clang-tidy, ruff and types
	@scripts/lint

.PHONY: format
format: setup ## formats C++ and Python in place
	@scripts/extra cpp-lint
	@git ls-files -z -co --exclude-standard '*.cpp' '*.h' | xargs -0 -r .venv/bin/clang-format -i
	@$(python) -m ruff check --fix-only --quiet .
	@$(python) -m ruff format --quiet .

.PHONY: typecheck
typecheck: build ## mypy --strict on the package; the stub against the built module
	@scripts/typecheck

.PHONY: sanitize
sanitize: setup ## runs the tests under the address and undefined-behaviour sanitizers
	@scripts/sanitize $(ARGS)

.PHONY: bench
bench: build ## measures every operation beside plain Python (ARGS=--instructions counts instead)
	@$(python) -m benchmarks $(ARGS)

.PHONY: bench-all
bench-all: setup ## measures with each CPython 3.10 to 3.13 on this machine, a column for each (ARGS=--instructions)
	@scripts/bench_all $(ARGS)

.PHONY: docs
docs: build ## builds the documentation into docs/_build/html
	@scripts/docs

.PHONY: first-hour
first-hour: build ## does all that README and Getting started say, in empty homes on bash and zsh (ARGS=--clone)
	@$(python) -m scripts.first_hour $(ARGS)

.PHONY: recordings
recordings: build ## draws the terminal recordings and screens of the documentation
	@scripts/extra docs
	@$(python) -m scripts.record_terminal --all
	@$(python) -m tests.command.top.pictures

.PHONY: wheel
wheel: setup ## builds and tries a wheel for each CPython 3.10 to 3.13 on this machine, into dist/
	@scripts/wheels

.PHONY: test-kubernetes
test-kubernetes: build ## runs the Kubernetes tests on a real kube-apiserver, or on your cluster (KUBECONFIG=path)
# Only when it is said on the command line: the variable of a shell may lead to a cluster that is in use.
ifeq ($(origin KUBECONFIG),command line)
	@TOVARIN_TEST_KUBECONFIG=$(abspath $(KUBECONFIG)) \
		$(python) -X dev -W error -m pytest tests/flows/test_kubernetes.py -k own $(ARGS)
else
	@program=$$(scripts/build_kube_apiserver) && TOVARIN_KUBE_APISERVER=$$program \
		$(python) -X dev -W error -m pytest tests/flows/test_kubernetes.py $(ARGS)
endif

.PHONY: worker-timeouts
worker-timeouts: build ## shows how each way a worker can fail is reported, and after how long
	@$(python) -m stage.worker_timeouts $(ARGS)

.PHONY: release
release: setup ## checks tag, changes and wheels of a release (VERSION=1.2.3)
	@scripts/release "$(VERSION)"

.PHONY: hooks
hooks: setup ## lets git run the quick part of `make lint` on each commit
	@scripts/extra hooks
	@scripts/extra cpp-lint
	@.venv/bin/pre-commit install

.PHONY: clean
clean: ## removes what was built; environments stay (rm -rf .venv*)
	@rm -rf build dist docs/_build docs/_generated .mypy_cache .ruff_cache .pytest_cache
	@rm -f tovarincore/*.so tests/python/*.so
