#!/usr/bin/env python3
"""Holds a worker against any AMQP 1.0 broker; see README.md."""

import argparse
import os
import signal
import sys
import tempfile
import time
import traceback

import checks_control
import checks_outages
import checks_scans
from lab import Lab, Skipped


def s_options():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--broker", required=True, help="amqps://HOST:PORT")
    parser.add_argument("--user", default="kv-av")
    parser.add_argument("--password-file", required=True)
    parser.add_argument("--ca", required=True, help="CA certificate of the broker, PEM")
    parser.add_argument("--broker-command", help="runs the broker in the foreground, {password} "
                        "replaced; without it the checks that end the broker are skipped")
    parser.add_argument("--keep", help="folder for traces, kept")
    parser.add_argument("checks", nargs="*", help="names of checks; all without")
    return parser.parse_args()


def s_run(lab, name, check, root):
    lab.folder = os.path.join(root, name)
    os.makedirs(lab.folder)
    started = time.monotonic()
    try:
        text, verdict = check(lab) or "", "PASS"
    except Skipped as reason:
        text, verdict = str(reason), "SKIPPED"
    except Exception:
        text, verdict = traceback.format_exc(), "FAIL"
    try:
        lab.end()
    except Exception:
        text, verdict = text + traceback.format_exc(), "FAIL"
    print("%-7s %-32s %5.1f s  %s" % (verdict, name, time.monotonic() - started, text), flush=True)
    return verdict != "FAIL"


def main():
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(2))
    options = s_options()
    checks = {name[6:]: function for module in (checks_control, checks_scans, checks_outages)
              for name, function in vars(module).items() if name.startswith("check_")}
    wanted = options.checks or list(checks)
    lab = Lab(options)
    if options.broker_command:
        lab.start_broker()
    root = options.keep or tempfile.mkdtemp(prefix="kv-interop-")
    try:
        passed = [s_run(lab, name, checks[name], root) for name in wanted]
    finally:
        lab.end()
        if lab.process is not None:
            lab.process.send_signal(signal.SIGCONT)
            lab.end_broker(signal.SIGTERM)
    print("%d of %d passed or skipped; traces in %s" % (sum(passed), len(passed), root))
    return 0 if all(passed) else 1


if __name__ == "__main__":
    sys.exit(main())
