"""Many threads on one facade break no invariant; `python -m tests.interpreter.crowd` runs the same for
minutes."""

from tests.interpreter.crowd import run, run_pool


def test_sixteen_threads_leave_registry_cache_pool_and_client_lock_whole():
    """No torn record, no lost provider, no client handed out twice, nobody beside another in the client
    lock."""
    crowd = run(threads=16, seconds=2)
    assert crowd.wrong == []
    assert all(
        crowd.operations[deed] for deed in ("write_registry", "use_pool", "make_client", "look_up_provider")
    )


def test_every_pooled_client_stays_accounted_for():
    """Eight threads add, take and flush: what was put in is in the pool, with a taker or flushed, once
    each."""
    done = run_pool(40_000)
    assert done["twice"] == 0
    assert done["accounted for"] == done["made"] > 0
