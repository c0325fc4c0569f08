#!/usr/bin/env python3
"""Prints the summary table of a vandrel benchmark run (Google Benchmark JSON)."""
import json
import sys


def main(path):
    with open(path) as f:
        data = json.load(f)
    runs = {b["name"]: b for b in data["benchmarks"] if b.get("run_type", "iteration") == "iteration"}
    ctx = data["context"]
    print(f"machine: {ctx.get('num_cpus')} CPUs at {ctx.get('mhz_per_cpu')} MHz, {ctx.get('host_name')}, {ctx.get('date')}")
    print()
    print("| benchmark | N | figure | value | target |")
    print("|---|---|---|---|---|")
    per_block = {}
    for n in (10, 100, 1000, 10000, 50000):
        lib, ref = runs.get(f"BM_Lags/{n}"), runs.get(f"BM_LagsReference/{n}")
        if not lib or not ref:
            continue
        # Inverted rate counters are stored in seconds per item.
        ratio = lib["ns_per_state_step"] / ref["ns_per_state_step"]
        per_block[n] = lib["ns_per_block_eval"] * 1e9
        target = " <= 0.8 ns" if n == 1000 else ""
        print(f"| lags | {n} | ns per block evaluation | {per_block[n]:.2f} |{target} |")
        print(f"| lags | {n} | ns per state per step | {lib['ns_per_state_step'] * 1e9:.2f} | |")
        print(f"| lags reference -O2 | {n} | ns per state per step | {ref['ns_per_state_step'] * 1e9:.2f} | |")
        print(f"| lags | {n} | ratio to reference | {ratio:.1f}x |{' <= 2.5x' if n == 1000 else ''} |")
    if 1000 in per_block and 10000 in per_block:
        print(f"| lags | 10000 / 1000 | per-block time ratio | {per_block[10000] / per_block[1000]:.2f} | <= 1.2 |")
    ev = runs.get("BM_Events/1000")
    if ev:
        print(f"| events | 1000 | million events per second | {ev['events_per_s'] / 1e6:.1f} | >= 20 |")
    for n in (1000, 10000, 100000):
        b = runs.get(f"BM_FirstLoad/{n}/iterations:3/manual_time")
        if b:
            target = " < 1000 ms" if n == 100000 else ""
            print(f"| first load + instantiate, fresh process | {int(b['blocks'])} blocks | ms | {b['real_time']:.0f} |{target} |")
    for n in (1000, 5000):
        b = runs.get(f"BM_LoadInstantiate/{n}")
        if b:
            blocks = int(b["blocks"])
            target = "<= 20 ms" if n == 1000 else "<= 100 ms"
            print(f"| load + instantiate | {blocks} blocks | ms | {b['real_time']:.1f} | {target} |")
        s = runs.get(f"BM_Save/{n}")
        if s:
            print(f"| save | {int(s['blocks'])} blocks | ms | {s['real_time']:.1f} | |")
    for n in (100, 1000):
        eu, rk = runs.get(f"BM_SolverLags/euler/{n}"), runs.get(f"BM_SolverLags/rk4/{n}")
        for kind in ("euler", "rk4", "dopri5", "cvode"):
            b = runs.get(f"BM_SolverLags/{kind}/{n}")
            if b:
                print(f"| solver lags {kind} | {n} | ns per step (derivative evaluations) | "
                      f"{b['ns_per_step'] * 1e9:.0f} ({b['rhs_per_step']:.2f}) | |")
        if eu and rk:
            print(f"| solver lags | {n} | RK4 step / Euler step | {rk['ns_per_step'] / eu['ns_per_step']:.2f}x | <= 4.5x |")
    orbit = {k: runs.get(f"BM_Orbit{k}/iterations:1") for k in ("RK4", "Dopri5", "Cvode")}
    for k, b in orbit.items():
        if b:
            print(f"| orbit 1e-8 | {k} | derivative evaluations (steps) | {b['rhs_evals']:.0f} ({b['steps']:.0f}) | |")
    if orbit["RK4"] and orbit["Dopri5"]:
        ratio = orbit["RK4"]["rhs_evals"] / orbit["Dopri5"]["rhs_evals"]
        print(f"| orbit 1e-8 | RK4 / Dopri5 | evaluation ratio | {ratio:.1f}x | >= 10x |")
    m = runs.get("BM_Memory/1000/iterations:1")
    if m:
        print(f"| memory | {int(m['blocks'])} blocks | heap bytes per block beyond the data area | {m['heap_bytes_per_block']:.0f} | <= 256 |")
        print(f"| memory | {int(m['blocks'])} blocks | data area bytes | {int(m['data_area_bytes'])} | as laid out |")
    lua_runs = (("0/1", "trivial, limits on", " >= 2"), ("0/0", "trivial, no limits", ""),
                ("1/1", "20-line controller, limits on", ""), ("1/0", "20-line controller, no limits", ""))
    for args, label, target in lua_runs:
        b = runs.get(f"BM_LuaRun/{args}")
        if b:
            print(f"| Lua run | {label} | million calls per second | {b['run_calls_per_s'] / 1e6:.2f} |{target} |")
    b = runs.get("BM_LuaSimulate")
    if b:
        print(f"| Lua run via simulate | trivial | million calls per second | {b['run_calls_per_s'] / 1e6:.2f} | |")
    flat = runs.get("BM_SubsystemLags/1000/0")
    if flat:
        base = flat["ns_per_block_eval"] * 1e9
        print(f"| lags, flat (subsystem baseline) | 1000 | ns per block evaluation | {base:.2f} | |")
        for m in (1, 100, 1000):
            b = runs.get(f"BM_SubsystemLags/1000/{m}")
            if b:
                ns = b["ns_per_block_eval"] * 1e9
                print(f"| lags in {m} subsystems of {1000 // m} | 1000 | ns per block evaluation (x flat) | {ns:.2f} ({ns / base:.2f}x) | <= 1.5x |")


if __name__ == "__main__":
    main(sys.argv[1])
