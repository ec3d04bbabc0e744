# Sourced. find_python [version]: prints the path of a CPython that runs, has its headers and can make environments.

# Says what keeps a candidate from being used; says nothing when it serves.
python_defect() { # interpreter
    "$1" -I - 2>/dev/null <<'PY' || echo "does not run"
import os, sys, sysconfig
if sys.implementation.name != "cpython":
    print("is not CPython")
elif not (3, 10) <= sys.version_info[:2] <= (3, 13):
    print("is version %d.%d" % sys.version_info[:2])
elif not os.path.exists(os.path.join(sysconfig.get_path("include"), "Python.h")):
    print("has no Python.h (on Debian: apt-get install python3-dev)")
elif sysconfig.get_config_var("Py_GIL_DISABLED"):
    print("is free-threaded, which is not supported: take one that has the global lock")
else:
    try:
        import ensurepip, venv
    except ImportError:
        print("has no venv module (on Debian: apt-get install python3-venv)")
PY
}

# Every interpreter worth trying for a version, best first. A name on PATH may be a version manager's
# shim that refuses to run, so what comes out of here is tried before it is trusted.
python_candidates() { # version
    local found
    type -aP "python$1" || true
    for found in ${PYENV_ROOT:-~/.pyenv}/versions/"$1".*/bin/python; do
        [[ -x $found ]] && echo "$found"
    done
    if command -v uv >/dev/null 2>&1; then
        uv python find --no-project "$1" 2>/dev/null || true
    fi
}

find_python() { # [version]
    local version candidate
    if [[ -z ${1:-} && -n ${PYTHON:-} ]]; then
        serves "$PYTHON" && return
        echo "setup: PYTHON=$PYTHON $(python_defect "$PYTHON"); looking for another" >&2
    fi
    for version in ${1:-3.10 3.13 3.12 3.11}; do
        while read -r candidate; do
            serves "$candidate" "$version" && return
        done < <(python_candidates "$version")
    done
    [[ -n ${1:-} ]] && return 1
    while read -r candidate; do
        serves "$candidate" && return
    done < <(type -aP python3)
    return 1
}

# Prints the real path of the interpreter when it serves (a shim's own path would resolve again at each call).
serves() { # interpreter, [version it must have]
    [[ -z $(python_defect "$1") ]] || return 1
    "$1" -I -c 'import sys; v = "%d.%d" % sys.version_info[:2]
if sys.argv[1] not in ("", v): sys.exit(1)
print(sys.executable)' "${2:-}"
}

explain_no_python() { # [version]
    local candidate
    echo "setup: no usable CPython ${1:-3.10 to 3.13} found; on Debian: apt-get install python3 python3-dev python3-venv"
    for candidate in $(type -aP "python${1:-3}"); do
        echo "setup:   $candidate $(python_defect "$candidate")"
    done
}
