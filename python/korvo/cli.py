"""The ``korvo`` command: denoise files, estimate noise, or run the demo."""

from __future__ import annotations

import argparse
import sys
import time

import numpy as np

from ._core import korvo
from .noise import estimate_sigma
from .profile import KORVOProfile

__all__ = ["main"]


def _parse_value(text):
    lowered = text.strip().lower()
    if lowered in ("true", "yes", "on"):
        return True
    if lowered in ("false", "no", "off"):
        return False
    if lowered == "none":
        return None
    if "," in text:
        return tuple(_parse_value(part) for part in text.split(","))
    try:
        return int(text)
    except ValueError:
        return float(text)


def _apply_settings(profile, settings):
    """``name=value`` pairs; ``ht.x`` / ``wiener.x`` address a stage; tuples as x,y,z."""
    for item in settings:
        if "=" not in item:
            raise ValueError(f"--set expects name=value, got {item!r}")
        name, text = item.split("=", 1)
        value = _parse_value(text)
        target = profile
        parts = name.strip().split(".")
        for part in parts[:-1]:
            if part not in ("ht", "wiener"):
                raise ValueError(f"unknown stage {part!r} in {name!r} (use ht. or wiener.)")
            target = getattr(profile, part)
        try:
            setattr(target, parts[-1], value)
        except AttributeError as exc:
            raise ValueError(str(exc)) from None
    return profile


def _denoise(args):
    from .io import read_volume, write_volume

    profile = _apply_settings(KORVOProfile(), args.set or [])
    if args.threads:
        profile.num_threads = args.threads
    data, context = read_volume(args.input)
    if data.ndim not in (2, 3, 4):
        raise ValueError(f"{args.input}: expected a 2-D, 3-D or 4-D array, got shape {data.shape}")
    volumes = [data] if data.ndim < 4 else list(data)
    if args.psd:
        noise = np.load(args.psd, allow_pickle=False)
        how = f"PSD from {args.psd}"
    elif args.sigma is not None:
        noise, how = args.sigma, f"sigma {args.sigma:g}"
    else:
        noise = None
        how = "estimated sigma"
    quiet = args.quiet
    started = time.monotonic()
    results = []
    for index, volume in enumerate(volumes):
        level = noise
        if level is None:
            level = estimate_sigma(volume)
            if not quiet:
                print(f"estimated noise sigma: {level:.6g}", file=sys.stderr)
        if not quiet and len(volumes) > 1:
            print(f"volume {index + 1}/{len(volumes)}", file=sys.stderr)
        results.append(korvo(volume, level, profile, stages=args.stages, progress=not quiet))
    out = results[0] if data.ndim < 4 else np.stack(results)
    write_volume(args.output, out, context)
    if not quiet:
        print(f"wrote {args.output} ({'x'.join(map(str, out.shape))}, {how}, "
              f"{time.monotonic() - started:.1f} s)", file=sys.stderr)
    return 0


def _estimate(args):
    from .io import read_volume

    data, _ = read_volume(args.input)
    volumes = [data] if data.ndim < 4 else list(data)
    for volume in volumes:
        print(f"{estimate_sigma(volume):.6g}")
    return 0


def _psnr(estimate, clean):
    mse = float(np.mean((np.asarray(estimate, np.float64) - clean) ** 2))
    peak = float(clean.max() - clean.min())
    return 10.0 * np.log10(peak * peak / mse)


def _panels(noisy, denoised, sigma):
    """Middle slices (one row per axis of a volume): noisy, denoised, difference."""
    def grey(a):
        return np.clip(a * 255.0, 0, 255)

    def diff(a):
        return np.clip(127.5 + a * (127.5 / (3.0 * sigma)), 0, 255)

    if noisy.ndim == 2:
        cuts = [(noisy, denoised)]
    else:
        cuts = [(np.take(noisy, n // 2, axis=a), np.take(denoised, n // 2, axis=a))
                for a, n in enumerate(noisy.shape)]
    height = max(c[0].shape[0] for c in cuts)
    width = max(c[0].shape[1] for c in cuts)
    gap = 4
    rows = []
    for a, b in cuts:
        row = []
        for panel in (grey(a), grey(b), diff(a - b)):
            box = np.zeros((height, width))
            box[:panel.shape[0], :panel.shape[1]] = panel
            row += [box, np.zeros((height, gap))]
        rows += [np.concatenate(row[:-1], axis=1), np.zeros((gap, 3 * width + 2 * gap))]
    picture = np.concatenate(rows[:-1], axis=0).astype(np.uint8)
    zoom = max(1, 160 // max(height, width))  # small volumes: enlarge for viewing
    return np.repeat(np.repeat(picture, zoom, axis=0), zoom, axis=1)


def _demo(args):
    from ._png import write_png
    from .phantom import phantom

    shape = tuple(args.shape)
    clean = phantom(shape)
    rng = np.random.default_rng(args.seed)
    noisy = (clean + args.sigma * rng.standard_normal(clean.shape)).astype(np.float32)
    print(f"phantom {'x'.join(map(str, shape))}, white noise sigma {args.sigma:g}")
    started = time.monotonic()
    denoised = korvo(noisy, args.sigma, progress=not args.quiet)
    seconds = time.monotonic() - started
    print(f"PSNR noisy:    {_psnr(noisy, clean):6.2f} dB")
    print(f"PSNR denoised: {_psnr(denoised, clean):6.2f} dB  ({seconds:.1f} s)")
    write_png(args.png, _panels(noisy, denoised, args.sigma))
    print(f"wrote {args.png} (middle slices: noisy, denoised, difference)")
    return 0


def _parser():
    parser = argparse.ArgumentParser(
        prog="korvo",
        description="Denoise 3-D volumes and 2-D images corrupted by white or coloured noise.")
    commands = parser.add_subparsers(dest="command", required=True)

    d = commands.add_parser(
        "denoise", help="denoise a file (.npy, .nii, .nii.gz, .tif, .tiff)",
        description="Denoise IN and write OUT. Without --sigma or --psd the noise level is "
                    "estimated. A 4-D input is denoised volume by volume along its first axis "
                    "(for NIfTI: the time axis).")
    d.add_argument("input", metavar="IN")
    d.add_argument("output", metavar="OUT")
    noise = d.add_mutually_exclusive_group()
    noise.add_argument("--sigma", type=float, help="standard deviation of white noise")
    noise.add_argument("--psd", metavar="FILE.npy",
                       help="noise PSD, E|fftn(noise)|^2 over the PSD's own shape")
    d.add_argument("--stages", choices=("both", "ht"), default="both",
                   help="both stages (default) or hard thresholding only")
    d.add_argument("--threads", type=int, help="worker threads (default: all cores)")
    d.add_argument("--set", action="append", metavar="NAME=VALUE",
                   help="profile setting, e.g. hard_threshold=2.5, ht.search_window=5,5,3, "
                        "split_block_extraction=false,false,true (repeatable)")
    d.add_argument("-q", "--quiet", action="store_true", help="no progress output")
    d.set_defaults(run=_denoise)

    e = commands.add_parser("estimate", help="print the estimated noise sigma of a file")
    e.add_argument("input", metavar="IN")
    e.set_defaults(run=_estimate)

    m = commands.add_parser("demo", help="denoise a synthetic phantom and write a PNG",
                            description="Denoise a synthetic phantom, print the PSNR before "
                                        "and after, write the middle slices as a PNG.")
    m.add_argument("--shape", type=int, nargs="+", default=[64, 64, 64],
                   help="phantom shape, 2 or 3 extents (default 64 64 64)")
    m.add_argument("--sigma", type=float, default=0.1, help="noise sigma (default 0.1)")
    m.add_argument("--seed", type=int, default=0)
    m.add_argument("--png", default="korvo-demo.png", help="output image (default korvo-demo.png)")
    m.add_argument("-q", "--quiet", action="store_true", help="no progress output")
    m.set_defaults(run=_demo)
    return parser


def main(argv=None):
    parser = _parser()
    args = parser.parse_args(argv)
    try:
        return args.run(args)
    except KeyboardInterrupt:
        print("\nkorvo: interrupted", file=sys.stderr)
        return 130
    except (ValueError, TypeError, OSError, ImportError, MemoryError) as exc:
        print(f"korvo: error: {exc}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
