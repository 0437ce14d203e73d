"""Stands in for the datapath's high performance script of the simulated host: hp_dp_script.py -d SWITCH_NAME.

Ends with 0 in maintenance mode and 1 out of it, as the host's management says it is; with 100 for a switch that the
host does not have.  "<root>/host/hp.result" overrides this: its first word is the code, the rest is printed.  Each run
leaves its start and its end in "<root>/host/hp_runs.log", so that two at once would show.
"""

import json
import os
import sys
import time

import simstate


def decide(state, name):
    override = os.path.join(state.host_dir, "hp.result")
    if os.path.exists(override):
        with open(override, encoding="utf-8") as file:
            code, _, text = file.read().strip().partition(" ")
        return int(code), text
    if name not in [state.meta(switch)["name"] for switch in state.switch_ids()]:
        return 100, "dvs=" + name
    return (0, "applied") if state.host["maintenance"] else (1, "not in maintenance mode")


def main():
    if len(sys.argv) != 3 or sys.argv[1] != "-d":
        sys.exit("hp_dp_script.py -d SWITCH_NAME")
    state = simstate.State()
    started = time.monotonic()
    with state.locked():
        code, text = decide(state, sys.argv[2])
        entry = {"start": started, "end": time.monotonic(), "switch": sys.argv[2], "code": code}
        with open(os.path.join(state.host_dir, "hp_runs.log"), "a", encoding="utf-8") as file:
            file.write(json.dumps(entry) + "\n")
    print(text)
    sys.exit(code)


if __name__ == "__main__":
    main()
