#!/usr/bin/env python3
"""Plants each fault of faults.txt in the source tree, one at a time, builds, runs the tests that
should catch it and restores the file, so that the suites' power can be checked after they change.

  tools/isolated.sh tools/mutants/plant.py                 every fault, against its named tests
  tools/isolated.sh tools/mutants/plant.py --all-tests F3  one fault, against every suite but the soaks
  ... --table tools/mutants/results.txt   also write the verdicts, with the tests that failed, to a
                                          table; a run of some faults updates their rows only

A fault is caught when a test fails or times out; a fault that no longer applies (its text is not
found exactly once) or does not compile is reported as such, never as caught. Exit 1 when any
fault survives or no longer applies. Needs the port of the service, so run it in tools/isolated.sh.
"""
import argparse
import json
import os
import re
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
FAULTS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "faults.txt")


def read_faults(path):
    """Blocks of 'key: value' lines, each opened by '## ID title'. 'find'/'replace' values may
    continue on following lines indented by two spaces."""
    faults, fault, key = [], None, None
    with open(path, encoding="utf-8") as f:
        for raw in f:
            line = raw.rstrip("\n")
            if line.startswith("## "):
                ident, _, title = line[3:].partition(" ")
                fault = {"id": ident, "title": title.strip()}
                faults.append(fault)
                key = None
            elif fault is None or not line.strip() or line.startswith("#"):
                continue
            elif line.startswith("  ") and key in ("find", "replace"):
                fault[key] += "\n" + line[2:]
            else:
                key, _, value = line.partition(":")
                key = key.strip()
                fault[key] = value[1:] if value.startswith(" ") else value
    for fault in faults:
        for key in ("file", "find", "replace", "tests"):
            if key not in fault:
                sys.exit(f"{fault['id']}: no '{key}'")
    return faults


def run(cmd, timeout=None, quiet=True):
    try:
        out = subprocess.run(cmd, cwd=ROOT, timeout=timeout, text=True,
                             stdout=subprocess.PIPE if quiet else None,
                             stderr=subprocess.STDOUT if quiet else None)
        return out.returncode, out.stdout or ""
    except subprocess.TimeoutExpired:
        return None, ""


def failing_tests(output):
    return sorted(set(re.findall(r"\d+ - (\S+) \((?:Failed|Timeout|SEGFAULT|Subprocess|Exception)", output)))


def suites_of_tests(build_dir):
    """Test name -> its suite (the label that names the executable), for the table."""
    listed = run(["ctest", "--test-dir", build_dir, "--show-only=json-v1"])[1]
    try:
        tests = json.loads(listed).get("tests", [])
    except ValueError:
        return {}
    suites = {}
    for test in tests:
        labels = [p["value"] for p in test.get("properties", []) if p.get("name") == "LABELS"]
        names = [label for label in (labels[0] if labels else []) if label.endswith("_test")]
        suites[test["name"]] = names[0] if names else ""
    return suites


def targets_for(labels):
    """The suites (each an executable of its label's name) that the label expression picks, as
    build targets: a fault's run builds those and what they depend on, not the whole tree."""
    suites = [name[:-4] for name in os.listdir(os.path.join(ROOT, "tests")) if name.endswith("_test.cpp")]
    picked = [suite for suite in suites + ["bridge_test"] if re.search(labels, suite)]
    return [arg for suite in sorted(picked) for arg in ("--target", suite)]


def plant(fault, build_dir, all_tests):
    path = os.path.join(ROOT, fault["file"])
    with open(path, encoding="utf-8") as f:
        original = f.read()
    if original.count(fault["find"]) != 1:
        return "stale", f"found {original.count(fault['find'])} times"
    try:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original.replace(fault["find"], fault["replace"]))
        code, out = run(["cmake", "--build", build_dir, "--parallel", str(os.cpu_count() or 2)]
                        + ([] if all_tests else targets_for(fault["tests"])))
        if code != 0:
            return "no build", out.strip().splitlines()[-1] if out.strip() else ""
        selection = ["-LE", "^soak$"] if all_tests else ["-L", fault["tests"]]
        listed = run(["ctest", "--test-dir", build_dir, "-N"] + selection)[1]
        if not re.search(r"Total Tests: [1-9]", listed):
            return "no tests", "the selection names no test"
        code, out = run(["ctest", "--test-dir", build_dir, "--no-tests=error", "--timeout", "120",
                         "--parallel", str(os.cpu_count() or 2)] + selection, timeout=1800)
        if code is None:
            return "caught", "the run hung"
        if code != 0:
            return "caught", " ".join(failing_tests(out)) or "the run failed"
        return "survived", ""
    finally:
        with open(path, "w", encoding="utf-8") as f:
            f.write(original)


TABLE_HEAD = "# Fault verdicts (tools/mutants/plant.py --table): ID, verdict, the tests that failed.\n"


def write_table(path, rows):
    """Keeps the rows of faults not run this time, in the order of faults.txt."""
    old, ident, notes = {}, None, []
    if os.path.exists(path):
        with open(path, encoding="utf-8") as f:
            for line in f:
                if line.startswith("# ") and line != TABLE_HEAD:
                    notes.append(line)  # what the table was run against, kept as written
                elif line.startswith("## "):
                    ident = line[3:].split(" ", 1)[0]
                    old[ident] = line
                elif ident and line.startswith("   "):
                    old[ident] += line
    old.update(rows)
    with open(path, "w", encoding="utf-8") as f:
        f.write(TABLE_HEAD + "".join(notes))
        for fault in read_faults(FAULTS):
            if fault["id"] in old:
                f.write(old[fault["id"]])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("ids", nargs="*", help="fault IDs (default: all)")
    parser.add_argument("--all-tests", action="store_true",
                        help="run every suite but the soaks instead of the fault's named tests")
    parser.add_argument("--build-dir", default="build-mutants")
    parser.add_argument("--list", action="store_true", help="list the faults and exit")
    parser.add_argument("--table", metavar="FILE", help="write the verdicts to this table")
    args = parser.parse_args()

    faults = read_faults(FAULTS)
    if args.ids:
        faults = [f for f in faults if f["id"] in args.ids]
    if args.list:
        for f in faults:
            print(f"{f['id']:5} {f['file']}: {f['title']}  [{f['tests']}]")
        return 0
    build_dir = os.path.join(ROOT, args.build_dir)
    if not os.path.exists(os.path.join(build_dir, "CMakeCache.txt")):
        generator = ["-G", "Ninja"] if run(["sh", "-c", "command -v ninja"])[0] == 0 else []
        run(["cmake", "-S", ".", "-B", build_dir] + generator, quiet=False)
    code, out = run(["cmake", "--build", build_dir, "--parallel", str(os.cpu_count() or 2)])
    if code != 0:
        print(out)
        sys.exit("the unmodified tree does not build")

    suites = suites_of_tests(build_dir)
    bad, rows = 0, {}
    for fault in faults:
        start = time.monotonic()
        verdict, detail = plant(fault, build_dir, args.all_tests)
        bad += verdict != "caught"
        print(f"{fault['id']:5} {verdict:9} {time.monotonic() - start:6.0f} s  {fault['title']}"
              f"{'  -- ' + detail if detail else ''}", flush=True)
        if verdict == "caught" and detail in ("the run hung", "the run failed"):
            caught_by = [detail]
        elif verdict == "caught":
            names = detail.split()
            caught_by = [f"{suites.get(name, '?')}:{name}" for name in names[:3]]
            caught_by += [f"(and {len(names) - 3} more)"] if len(names) > 3 else []
        else:
            caught_by = [detail] if detail else []
        rows[fault["id"]] = (f"## {fault['id']} {verdict}: {fault['title']}\n"
                             + "".join(f"   {line}\n" for line in caught_by))
        if args.table:
            write_table(args.table, rows)
    # Leave the build matching the restored tree.
    run(["cmake", "--build", build_dir, "--parallel", str(os.cpu_count() or 2)])
    print(f"{len(faults) - bad} of {len(faults)} faults caught")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
