"""tarnwick-run while its requests fail: it says so and ends, or goes on and serves; it never leaves anything."""

import concurrent.futures
import os
import re

import laboratory
import supervisor
from laboratory import log_of, stop, wait_for, wait_for_end
from supervisor import NOTHING, leftovers

DEADLINE_S = 60
SIDE_BY_SIDE = 4
STEP = int(os.environ.get("TARNWICK_RUN_FAULT_STEP", "1"))
FAIL_AT_CALL = f"{laboratory.PROGRAMS_IN_ROUTER}/libfail_at_call.so"


def start_with_fault(lab, call):
    return supervisor.start(lab, wait=False, environment={"LD_PRELOAD": FAIL_AT_CALL, "FAIL_AT_CALL": str(call)})


def outcome_of_fault(lab, call):
    """"ended" with a reason, or "served" in spite of the fault."""
    supervised = start_with_fault(lab, call)
    wait_for(lambda: laboratory.has_ended(supervised) or supervisor.times_ready(supervised), DEADLINE_S, f"call {call}")
    if laboratory.has_ended(supervised):
        assert wait_for_end(supervised) == 1 and log_of(supervised), f"call {call}"
        outcome = "ended"
    else:
        assert stop(supervised, DEADLINE_S) == 0, f"call {call}"
        outcome = "served"
    wait_for(lambda: leftovers(lab) == NOTHING, DEADLINE_S, f"nothing left after the failure of call {call}")
    return outcome


def outcomes(lab, calls):
    return [outcome_of_fault(lab, call) for call in calls]


def test_failure_of_any_request_ends_with_a_reason_or_is_survived(make_lab, record_property):
    labs = [make_lab() for _ in range(SIDE_BY_SIDE)]
    whole = start_with_fault(labs[0], 0)
    supervisor.wait_until_ready(whole)
    assert stop(whole) == 0
    count = int(re.search(r"^calls: (\d+)$", log_of(whole), re.M).group(1))
    assert count > 40
    chosen = list(range(1, count + 1, STEP))
    with concurrent.futures.ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
        found = sum(pool.map(outcomes, labs, [chosen[i::SIDE_BY_SIDE] for i in range(SIDE_BY_SIDE)]), [])
    record_property("requests", count)
    record_property("ended", found.count("ended"))
    record_property("served", found.count("served"))
    assert {"ended", "served"} == set(found)
