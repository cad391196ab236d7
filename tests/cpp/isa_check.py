"""Checks the disassembly of linked binaries: outside the AVX2 kernels' namespace
no function may use an instruction beyond the x86-64 baseline (a copy of shared
code compiled for AVX2 and picked by the linker would fault on older processors).

usage: isa_check.py OBJDUMP avx2|none BINARY...
"""
import re
import subprocess
import sys

AVX2_NAMESPACE = "korvo_kernels_avx2"
# Mnemonics starting with v that are not vector extensions (virtualisation, segment checks).
NOT_VECTOR = {"verr", "verw", "vmcall", "vmclear", "vmlaunch", "vmptrld", "vmptrst", "vmread",
              "vmresume", "vmwrite", "vmxoff", "vmxon", "vmfunc", "vmrun", "vmload", "vmsave",
              "vmmcall"}
# Beyond SSE2 without a v prefix: SSE3 to SSE4.2, bit manipulation, popcnt and friends.
BEYOND_BASELINE = re.compile(
    r"^(popcnt|lzcnt|tzcnt|andn|bextr|blsi|blsmsk|blsr|bzhi|mulx|pdep|pext|rorx|sarx|shlx|shrx|"
    r"movbe|crc32|pshufb|palignr|ptest|pblend\w*|blendv?p[sd]|round[sp][sd]|pmulld|pmin[su][bwd]|"
    r"pmax[su][bwd]|insertps|extractps|pinsr[bdq]|pextr[bdq]|dpp[sd]|hadd\w+|hsub\w+|movddup|"
    r"movs[hl]dup|lddqu|pabs[bwd]|phadd\w+|phsub\w+|pmaddubsw|pmulhrsw|psign[bwd]|pcmpeqq|"
    r"pcmpgtq|packusdw|pmov[sz]x\w+|mpsadbw|phminposuw|pmuldq|addsubp[sd])$")
FUNCTION = re.compile(r"^[0-9a-f]+ <(.*)>:$")
INSTRUCTION = re.compile(r"^\s+[0-9a-f]+:\s+(.*)$")
PREFIXES = {"rep", "repz", "repnz", "repe", "repne", "lock", "notrack", "bnd", "data16", "cs", "ds"}


def offending(instruction):
    words = instruction.split()
    while words and words[0] in PREFIXES:
        words = words[1:]
    if not words:
        return False
    mnemonic = words[0]
    if mnemonic.startswith("v") and mnemonic not in NOT_VECTOR:
        return True
    if "%ymm" in instruction or "%zmm" in instruction:
        return True
    return bool(BEYOND_BASELINE.match(mnemonic))


def main():
    objdump, mode, binaries = sys.argv[1], sys.argv[2], sys.argv[3:]
    failures = []
    for binary in binaries:
        listing = subprocess.run([objdump, "-d", "-C", "--no-show-raw-insn", "--wide", binary],
                                 check=True, capture_output=True, text=True).stdout
        function, fused = None, 0
        for line in listing.splitlines():
            header = FUNCTION.match(line)
            if header:
                function = header.group(1)
                continue
            match = INSTRUCTION.match(line)
            if not match or function is None:
                continue
            instruction = match.group(1)
            if AVX2_NAMESPACE in function:
                fused += instruction.startswith("vfmadd")
                continue
            if offending(instruction):
                failures.append(f"{binary}: {function}: {instruction}")
                function = None  # one report per function
        if mode == "avx2" and fused == 0:
            failures.append(f"{binary}: no fused multiply-add in the AVX2 kernels")
        if mode == "none" and AVX2_NAMESPACE in listing:
            failures.append(f"{binary}: AVX2 kernels present in a build without them")
    for failure in failures[:50]:
        print(failure)
    print(f"{len(failures)} problem(s) in {len(binaries)} binaries")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
