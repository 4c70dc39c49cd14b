#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Joins what kavrel_arm_cost printed (one line per region) with what the
insncount plugin counted (per region: instructions, and the blocks that
executed most of them), estimates cycles with llvm-mca and prints one table.

Usage: arm-cost-report.py [--out FILE] VARIANT REGIONS COUNTS [VARIANT REGIONS COUNTS ...]

Cycles: each hot block is one llvm-mca code region, run 100 times back to
back (a loop body is one block: the steady state of the loop); its cycles per
iteration times its executions, summed. The instructions outside the hot
blocks (at most 1% of a region) and blocks llvm-mca cannot read are taken at
one cycle each. Calls are left out (llvm-mca would charge 100 cycles for each;
the callee's blocks count where they run), branch targets the block's start, and
Thumb blocks are read in ARM mode (see asm_lines).
"""
import re
import subprocess
import sys
from collections import OrderedDict

CPUS = [("A9", "cortex-a9"), ("A57", "cortex-a57")]
ITERATIONS = 100
UNMODELLED_CPI = 1.0
CALIBRATION_SLACK = 0.001   # the call and the region loop: a few dozen instructions in 100000 turns
IMPLS = ["kavrel", "libyuv", "opencv", "memcpy x2"]

BRANCH = re.compile(r"^(b|bl|blx|cbz|cbnz)(eq|ne|cs|hs|cc|lo|mi|pl|vs|vc|hi|ls|ge|lt|gt|le|al)?(\.w|\.n)?\s+(.*)$")


IT = re.compile(r"^it[te]{0,3}\s+\w+$")


def asm_lines(text):
    """The block as llvm-mc reads it in ARM mode. IT goes (llvm-mca cannot
    model it) and the instructions it covers stay unconditional, as the
    disassembler prints them: they issue either way, and llvm-mca 15's
    Cortex-A9 model crashes on some predicated stores. The cycle models of
    these cores are the same for both instruction sets."""
    out = []
    for insn in text.split(";"):
        insn = insn.strip()
        if IT.match(insn):
            continue
        m = BRANCH.match(insn)
        if m:
            op, cond = m.group(1), m.group(2) or ""
            if op in ("bl", "blx"):
                continue  # the callee's own blocks are counted where they run
            if op in ("cbz", "cbnz"):
                out.append("cmp %s, #0" % m.group(4).split(",")[0])
                continue
            if m.group(4).startswith("#"):
                insn = "b%s 1b" % cond
        out.append(insn)
    return out


def run_mca(blocks, lines, triple, cpu):
    src, owner = [], {}
    for i, t in enumerate(blocks):
        src.append("# LLVM-MCA-BEGIN b%d" % i)
        src.append("1:")
        for k, a in enumerate(lines[t]):
            src.append(a)
            owner[len(src)] = (t, k)
        src.append("# LLVM-MCA-END")
    p = subprocess.run(["llvm-mca-15", "-mtriple=" + triple, "-mcpu=" + cpu, "-mattr=+neon",
                        "-iterations=%d" % ITERATIONS, "-"],
                       input="\n".join(src) + "\n", capture_output=True, text=True)
    if p.returncode == 0 and "error:" not in p.stderr:
        cycles = [int(c) for c in re.findall(r"^Total Cycles:\s+(\d+)", p.stdout, re.M)]
        if len(cycles) == len(blocks):
            return cycles, set()
    bad = {owner[int(n)] for n in re.findall(r"<stdin>:(\d+):\d+: error", p.stderr) if int(n) in owner}
    for text in re.findall(r"note: instruction:\s*(.*)", p.stderr):
        want = " ".join(text.split())
        for n in sorted(owner):
            if " ".join(src[n - 1].split()) == want:
                bad.add(owner[n])
                break
    return None, bad


def mca(blocks, triple, cpu):
    """Cycles per execution of each block, and how many of its instructions
    were left out. An instruction llvm-mca cannot read or model (barriers,
    exclusive loads, Thumb-only register pairs in ARM mode, or one that
    crashes a model) is left out of its block and counted at UNMODELLED_CPI."""
    lines = {t: asm_lines(t) for t in blocks}
    dropped = {t: 0 for t in blocks}
    result = {}

    def drop(t, k):
        del lines[t][k]
        dropped[t] += 1

    def solve(group):
        for _ in range(500):
            cycles, bad = run_mca(group, lines, triple, cpu)
            if cycles is not None:
                for t, c in zip(group, cycles):
                    result[t] = (c / ITERATIONS + dropped[t] * UNMODELLED_CPI, dropped[t])
                return
            if bad:
                for t, k in sorted(bad, key=lambda x: -x[1]):
                    drop(t, k)
                continue
            # A crash names nothing: halve the group down to the block, then
            # leave out the one instruction whose absence cures it, or, when
            # none does, the whole block.
            if len(group) > 1:
                half = len(group) // 2
                solve(group[:half])
                solve(group[half:])
                return
            t = group[0]
            for k in reversed(range(len(lines[t]))):
                if run_mca([t], {t: lines[t][:k] + lines[t][k + 1:]}, triple, cpu)[0] is not None:
                    drop(t, k)
                    break
            else:
                dropped[t] += len(lines[t])
                lines[t] = []
                result[t] = (dropped[t] * UNMODELLED_CPI, dropped[t])
                return
        sys.exit("arm-cost-report: llvm-mca keeps failing on a block")

    solve(list(blocks))
    return result


def read_variant(regions_path, counts_path):
    regions = []
    with open(regions_path) as f:
        for line in f:
            case, impl, size, runs, ms = line.rstrip("\n").split("\t")
            w, h = (int(x) for x in size.split("x"))
            regions.append({"case": case, "impl": impl, "size": size, "pixels": w * h, "runs": int(runs),
                            "blocks": []})
    i = -1
    with open(counts_path) as f:
        for line in f:
            if line.startswith("R "):
                i += 1
                regions[i]["insns"] = int(line.split()[1])
            elif line.startswith("B "):
                _, execs, n, thumb, text = line.rstrip("\n").split(" ", 4)
                regions[i]["blocks"].append((int(execs), int(n), thumb == "1", text))
    if i + 1 != len(regions):
        sys.exit("arm-cost-report: %s has %d regions, %s %d" % (regions_path, len(regions), counts_path, i + 1))
    return regions


def estimate(regions):
    blocks = sorted({b[3] for r in regions for b in r["blocks"]})
    for name, cpu in CPUS:
        cyc = mca(blocks, "armv7a-linux-gnueabihf", cpu)
        for r in regions:
            total, modelled = 0.0, 0
            for execs, n, _, text in r["blocks"]:
                c, left_out = cyc[text]
                total += execs * c
                modelled += execs * (n - left_out)
            total += (r["insns"] - sum(e * n for e, n, _, _ in r["blocks"])) * UNMODELLED_CPI
            r["cyc_" + name] = total / r["runs"] / r["pixels"]
            r["modelled_" + name] = modelled / max(1, r["insns"])


def check_calibration(variant, regions):
    """The program's first region is a loop of 2 instructions per turn, one
    turn per 'pixel': the count must be 2 per pixel plus the call around it,
    or the plugin, the markers or the pairing of regions is wrong."""
    cal = [r for r in regions if r["case"] == "calibration"]
    if len(cal) != 1:
        sys.exit("arm-cost-report: %s: no calibration region" % variant)
    per_turn = cal[0]["insns"] / cal[0]["runs"] / cal[0]["pixels"]
    if abs(per_turn - 2.0) > CALIBRATION_SLACK:
        sys.exit("arm-cost-report: %s: the calibration loop counted %.4f instructions per turn, not 2"
                 % (variant, per_turn))


def fmt(x):
    if x is None:
        return "-"
    return "%.2f" % x if x < 10 else "%.1f" % x


def main(argv):
    out = None
    if argv[:1] == ["--out"]:
        out, argv = argv[1], argv[2:]
    if not argv or len(argv) % 3:
        sys.exit(__doc__)
    rows = OrderedDict()
    worst_cover = 1.0
    for k in range(0, len(argv), 3):
        variant, regions = argv[k], read_variant(argv[k + 1], argv[k + 2])
        check_calibration(variant, regions)
        regions = [r for r in regions if r["case"] != "calibration"]
        estimate(regions)
        for r in regions:
            key = (r["case"], r["size"], variant)
            rows.setdefault(key, {})[r["impl"]] = r
            worst_cover = min(worst_cover, r["modelled_A9"], r["modelled_A57"])

    head = ["Case", "Size", "Build"]
    for impl in IMPLS:
        head.append("%s insn/px" % impl)
        head.append("%s cyc/px A9 / A57" % impl)
    head += ["Kavrel / best peer (insn)", "Kavrel / floor (insn)", "Kavrel / floor (A9 cyc)"]
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * 3 + "---:|" * (len(head) - 3)]
    for (case, size, variant), impls in rows.items():
        cells = [case, size, variant]
        per_px = {}
        for impl in IMPLS:
            r = impls.get(impl)
            if r is None:
                cells += ["-", "-"]
                continue
            per_px[impl] = r["insns"] / r["runs"] / r["pixels"]
            cells.append(fmt(per_px[impl]))
            cells.append("%s / %s" % (fmt(r["cyc_A9"]), fmt(r["cyc_A57"])))
        ours = per_px.get("kavrel")
        peers = [per_px[p] for p in ("libyuv", "opencv") if p in per_px]
        cells.append(fmt(ours / min(peers)) + "x" if ours and peers else "-")
        cells.append(fmt(ours / per_px["memcpy x2"]) + "x" if ours and "memcpy x2" in per_px else "-")
        if ours and "memcpy x2" in impls:
            cells.append(fmt(impls["kavrel"]["cyc_A9"] / impls["memcpy x2"]["cyc_A9"]) + "x")
        else:
            cells.append("-")
        lines.append("| " + " | ".join(cells) + " |")
    lines.append("")
    lines.append("Instructions modelled by llvm-mca: at least %.1f%% of every region's; the rest at %.0f cycle each."
                 % (100 * worst_cover, UNMODELLED_CPI))
    text = "\n".join(lines) + "\n"
    sys.stdout.write(text)
    if out:
        with open(out, "w") as f:
            f.write(text)


if __name__ == "__main__":
    main(sys.argv[1:])
