#!/usr/bin/env python3
"""Writes src/noise/fft_kernels.inc: straight-line forward DFTs of lengths 4, 8, 16, 32.

Each kernel is the radix-2 decimation-in-time decomposition evaluated symbolically:
every intermediate value is a float variable, a known zero, or the negation of a
variable. Identical operations are shared (common-subexpression elimination), which
for real input turns the full complex recursion into a real FFT on its own: the
conjugate-symmetric halves reuse the same sums, and the imaginary parts at k = 0 and
k = n/2 stay known zeros, so they are written as exact zeros.

Rounding model of the emitted code: a product of a float with a twiddle constant is
formed in double (the constant is a double literal) and rounded to float at once;
sums and differences are float operations.

Usage: python3 tools/gen_fft.py [output path]   (default: src/noise/fft_kernels.inc)
The output depends only on this script, so regenerating gives the same file.
"""

import math
import os
import sys

LENGTHS = (4, 8, 16, 32)
TWIDDLES = (0.9807852804032304, 0.9238795325112867, 0.8314696123025452, 0.7071067811865475,
            0.5555702330196022, 0.3826834323650898, 0.1950903220161283)


def twiddle_literal(j):
    """cos(2*pi*j/32) as (sign, positive double literal)."""
    j %= 32
    # Reduce to the first octant so that cos and sin of mirrored angles use the same literal.
    sign = 1
    if j > 16:
        j = 32 - j  # cos is even
    if j > 8:
        j = 16 - j
        sign = -1
    value = math.cos(2.0 * math.pi * j / 32.0)
    if j == 8:
        value = math.cos(math.pi / 4.0)
    # The kernels carry these decimal literals; sqrt(1/2) is the one a unit below
    # the correctly rounded double.
    for literal in TWIDDLES:
        if abs(literal - value) < 1e-15:
            return sign, literal
    return sign, value


class Scalar:
    """A symbolic float: None for a known zero, else (variable name, sign)."""

    __slots__ = ("name", "sign")

    def __init__(self, name, sign=1):
        self.name = name
        self.sign = sign

    def neg(self):
        return Scalar(self.name, -self.sign)


ZERO = None


class Emitter:
    def __init__(self):
        self.lines = []
        self.count = 0
        self.memo = {}

    def fresh(self, expression, key):
        if key in self.memo:
            return self.memo[key]
        name = "t%d" % self.count
        self.count += 1
        self.lines.append("    const float %s = %s;" % (name, expression))
        self.memo[key] = name
        return name

    def load(self, expression):
        name = "t%d" % self.count
        self.count += 1
        self.lines.append("    const float %s = %s;" % (name, expression))
        return Scalar(name)

    def neg(self, a):
        return ZERO if a is ZERO else a.neg()

    def add(self, a, b):
        """a + b with signs folded into the operation; the result may carry a sign."""
        if a is ZERO:
            return b
        if b is ZERO:
            return a
        # Variables are numbered in creation order; sort numerically so keys are unique.
        terms = sorted([(a.name, a.sign), (b.name, b.sign)], key=lambda t: int(t[0][1:]))
        if terms[0][0] == terms[1][0]:
            raise ValueError("a term combined with itself")
        # Canonical form: first term positive; the overall sign is carried outside.
        outer = terms[0][1]
        first, second = terms[0][0], terms[1][0]
        second_sign = terms[1][1] * outer
        op = "+" if second_sign > 0 else "-"
        key = ("add", first, op, second)
        name = self.fresh("%s %s %s" % (first, op, second), key)
        return Scalar(name, outer)

    def sub(self, a, b):
        return self.add(a, self.neg(b))

    def mul(self, a, literal_sign, literal):
        """a times a twiddle constant: double product, rounded to float at once."""
        if a is ZERO or literal == 0.0:
            return ZERO
        if literal == 1.0:
            return Scalar(a.name, a.sign * literal_sign)
        key = ("mul", a.name, repr(literal))
        name = self.fresh("static_cast<float>(%s * %r)" % (a.name, literal), key)
        return Scalar(name, a.sign * literal_sign)


def twiddle_times(em, k, n, value):
    """(cos - i sin)(2 pi k / n) times the complex value (re, im)."""
    re, im = value
    if k == 0:
        return value
    if 4 * k == n:  # -i
        return (im, em.neg(re))
    j = k * (32 // n)  # angle in units of 2*pi/32
    cs, c = twiddle_literal(j)
    ss, s = twiddle_literal(j - 8)  # sin(x) = cos(x - pi/2)
    # (c - i s)(re + i im) = (c re + s im) + i (c im - s re)
    out_re = em.add(em.mul(re, cs, c), em.mul(im, ss, s))
    out_im = em.sub(em.mul(im, cs, c), em.mul(re, ss, s))
    return (out_re, out_im)


def dft(em, values):
    n = len(values)
    if n == 1:
        return [values[0]]
    even = dft(em, values[0::2])
    odd = dft(em, values[1::2])
    out = [None] * n
    for k in range(n // 2):
        t = twiddle_times(em, k, n, odd[k])
        out[k] = (em.add(even[k][0], t[0]), em.add(even[k][1], t[1]))
        out[k + n // 2] = (em.sub(even[k][0], t[0]), em.sub(even[k][1], t[1]))
    return out


def render(s):
    if s is ZERO:
        return "0.0f"
    return s.name if s.sign > 0 else "-" + s.name


def kernel(n, real_input):
    em = Emitter()
    values = []
    for j in range(n):
        re = em.load("in[%d].real" % j)
        im = ZERO if real_input else em.load("in[%d].imag" % j)
        values.append((re, im))
    spectrum = dft(em, values)
    kind = "Real" if real_input else "Complex"
    head = [
        "static void fft%s%d(const Complex* KORVO_RESTRICT in, Complex* KORVO_RESTRICT out) {"
        % (kind, n)
    ]
    body = list(em.lines)
    for k, (re, im) in enumerate(spectrum):
        body.append("    out[%d] = Complex{%s, %s};" % (k, render(re), render(im)))
    return head + body + ["}", ""]


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(root, "src", "noise", "fft_kernels.inc")
    lines = [
        "// Generated by tools/gen_fft.py -- do not edit by hand.",
        "// Regenerate with: python3 tools/gen_fft.py (from the repository root).",
        "// Straight-line radix-2 forward DFTs of lengths 4, 8, 16 and 32: complex input,",
        "// and real input (imaginary parts not read) giving the full Hermitian spectrum.",
        "// Twiddle products are formed in double and rounded to float at once; sums are float.",
        "// NOLINTBEGIN",
        "",
    ]
    for n in LENGTHS:
        lines += kernel(n, False)
        lines += kernel(n, True)
    lines.append("// NOLINTEND")
    with open(path, "w", newline="\n") as f:
        f.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
