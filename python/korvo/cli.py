"""The ``korvo`` command: denoise files, estimate noise, or run the demo."""

from __future__ import annotations

import argparse
import contextlib
import logging
import os
import signal
import sys
import time
import warnings

import numpy as np

from . import KORVOProfile, __version__, estimate_psd, estimate_sigma, estimate_sigma_map, korvo
from .noise import NonFiniteError, psd_concentration, psd_sigma
from .noise_models import MODEL_PARAMETERS, MODELS
from .profile import PSDAdaptation

__all__ = ["main"]

# Errors that come from what the user asked for: reported in one line.
_USER_ERRORS = (ValueError, TypeError, OverflowError, OSError, ImportError, MemoryError,
                EOFError)


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
    for kind in (int, float):
        try:
            return kind(text)
        except ValueError:
            pass
    return text.strip()  # the profile names what it expected


def _apply_settings(profile, settings):
    """``name=value`` pairs; ``ht.name`` / ``wiener.name`` address one stage; tuples as x,y,z."""
    for item in settings:
        name, equals, text = item.partition("=")
        if not equals:
            raise ValueError(f"--set expects name=value, got {item!r}")
        parts = name.strip().split(".")
        if len(parts) > 2 or (len(parts) == 2 and parts[0] not in ("ht", "wiener")):
            raise ValueError(f"--set {item}: a name is 'setting' or 'ht.setting' / "
                             f"'wiener.setting'")
        target = getattr(profile, parts[0]) if len(parts) == 2 else profile
        if parts[-1] in ("ht", "wiener"):
            raise ValueError(f"--set {item}: name a setting of the stage, e.g. {parts[-1]}.step")
        try:
            setattr(target, parts[-1], _parse_value(text))
        except (AttributeError, ValueError, TypeError, OverflowError) as exc:
            raise ValueError(f"--set {item}: {exc}") from None
    return profile


def _non_negative(text):
    value = int(text)
    if value < 0:
        raise argparse.ArgumentTypeError(f"must be 0 (all cores) or more, got {value}")
    return value


# ----------------------------------------------------------------------------
# Axis layout


def _layout(axes, shape, name):
    """-> (series, rest): indices of the axes looped over, and of the axes one
    call receives (space and channels, in file order)."""
    channel = axes.find("C") if "C" in axes else axes.find("S")
    spatial = [i for i, a in enumerate(axes) if a in "ZYX"]
    if "Y" not in axes or "X" not in axes or len(spatial) not in (2, 3):
        raise ValueError(f"{name}: axes {axes!r} (shape {shape}) hold no 2-D image or 3-D volume")
    rest = sorted(spatial + ([channel] if channel >= 0 else []))
    series = [i for i in range(len(axes)) if i not in rest]
    return series, rest


def _axes(args, context, shape):
    """IN's axis labels: its own, or --axes where IN gives none."""
    from .validation import looks_like_colour

    if args.axes is None:
        axes = context["axes"]
        space = tuple(n for a, n in zip(axes, shape) if a in "ZYX")
        if not context.get("labelled", True) and looks_like_colour(space):
            raise ValueError(f"{args.input}: its axes are not labelled, and {space} looks like a "
                             f"colour image (rows, columns, {space[-1]}): pass --axes "
                             f"{axes[:-3]}YXC to denoise each channel as an image")
        return axes
    if context.get("labelled", True):
        raise ValueError(f"{args.input} labels its own axes ({context['axes']}); --axes names "
                         f"those of files that do not (.npy, plain TIFF, Zarr or HDF5)")
    axes = args.axes.upper()
    if len(axes) != len(shape) or set(axes) - set("ZYXCT") or len(set(axes)) != len(axes) \
            or "".join(a for a in axes if a in "ZYX") not in ("ZYX", "YX"):
        raise ValueError(f"--axes {args.axes}: give one letter per axis of {args.input}'s shape "
                         f"{shape}, from Z, Y, X (space, in that order), C (channels) and T "
                         f"(a series)")
    context["axes"] = axes
    return axes


def _channel_axis(labels):
    """Index of the channel axis (C, or S of RGB) among one call's axes, or None."""
    return next((i for i, a in enumerate(labels) if a in "CS"), None)


def _items(data, series):
    """Views of ``data`` (its series axes already leading) item by item."""
    for index in np.ndindex(*data.shape[:len(series)]):
        yield index, data[index]


def _channels(block, channel):
    if channel is None:
        return [block]
    return [np.take(block, c, axis=channel) for c in range(block.shape[channel])]


def _describe(axes, shape):
    return " x ".join(f"{n} {a}" for a, n in zip(axes, shape))


class _Run:
    """One ``denoise`` call: the noise model, the profile, the output type."""

    def __init__(self, args, name):
        self.args, self.name = args, name
        self.dtype, self.scaling = np.dtype(np.float32), None
        self.profile = _apply_settings(KORVOProfile(), args.set or [])
        if args.threads is not None:
            self.profile.num_threads = args.threads or None  # 0: every core
        self.psd, self.alpha = None, ()
        self.auto = args.psd == "auto"
        self.shared = _shared_groups(args.shared_groups)
        if args.noise != "gaussian" and (args.psd or args.sigma_map):
            raise ValueError(f"--noise {args.noise} is stabilised to white noise: it takes "
                             f"--sigma (or estimates it), not --psd or --sigma-map")
        for model, names in MODEL_PARAMETERS.items():
            for name in names:
                if getattr(args, name) is not None and args.noise != model:
                    raise ValueError(f"--{name} is a parameter of --noise {model}, and this run "
                                     f"has --noise {args.noise}")
        if args.psd_mask and not self.auto:
            raise ValueError("--psd-mask marks where to estimate the PSD: use it with --psd auto")
        if args.psd and not self.auto:
            from .io import read_volume
            self.psd, _ = read_volume(args.psd)

    def keep(self, dtype, context, output):
        """--dtype keep: IN's stored type, ``dtype`` as read. A scaled NIfTI's
        stored integers keep its slope and intercept in a NIfTI output; in other
        formats, which cannot hold them, they would read as other values, so
        the result stays float32. A scaled float NIfTI keeps its float type."""
        from .io import stored_scaling, volume_format

        scaling = stored_scaling(context)
        image = context.get("image") if context.get("kind") == "nifti" else None
        if scaling is not None and volume_format(output) != "nifti":
            self.dtype = np.dtype(np.float32)
        elif scaling is not None:
            self.dtype, self.scaling = scaling[0], scaling
        else:
            self.dtype = np.dtype(image.get_data_dtype()) if image is not None else dtype
        if self.dtype == np.float16 and volume_format(output) == "nifti":
            self.dtype = np.dtype(np.float32)  # NIfTI has no float16

    def say(self, text):
        if not self.args.quiet:
            print(text, file=sys.stderr, flush=True)

    def given(self, sigma_map=None):
        """Keyword arguments naming the noise as the command line was told it
        (a noise model estimates what is not given itself), or None where the
        command line estimates it from the data."""
        if self.args.noise != "gaussian":
            given = dict(sigma=self.args.sigma, gain=self.args.gain, offset=self.args.offset,
                         coils=self.args.coils)
            return dict({k: v for k, v in given.items() if v is not None}, noise=self.args.noise)
        if self.psd is not None:
            return {"psd": self.psd}
        if self.args.sigma is not None:
            return {"sigma": self.args.sigma}
        if sigma_map is not None:
            return {"sigma": sigma_map}
        return None

    def check_values(self, count):
        """Values given one per channel (--sigma 0.05,0.2) against the item's
        ``count`` channels (None: it has none), before any work."""
        for name in PER_CHANNEL:
            value = getattr(self.args, name)
            if not isinstance(value, tuple):
                continue
            if count is None:
                raise ValueError(f"--{name} gives {len(value)} values, one per channel, and "
                                 f"{self.name} has no channels")
            if self.alpha:
                raise ValueError(f"--{name}: {self.name} has an alpha channel; give one value "
                                 f"for all channels")
            if len(value) != count:
                raise ValueError(f"--{name} gives {len(value)} values for {self.name}'s "
                                 f"{count} channels")

    def noise(self, block, channel, where, sigma_map=None):
        """Keyword arguments naming the noise of one call."""
        given = self.given(sigma_map)
        if given is not None:
            return given
        if self.args.sigma_map == "auto":
            maps = [estimate_sigma_map(part) for part in _channels(block, channel)]
            self.say(f"estimated noise sigma map{where}: " + "; ".join(
                f"{m.min():.6g} to {m.max():.6g}" for m in maps))
            return {"sigma": maps[0] if channel is None else np.stack(maps, axis=channel)}
        sigmas = [float(estimate_sigma(part)) for part in _channels(block, channel)]
        if min(sigmas) <= 0:
            which = "" if channel is None else f" of channel {sigmas.index(min(sigmas))}"
            raise ValueError(f"{self.name}{where}: the noise sigma{which} was estimated as 0 "
                             f"(the data look noise-free or constant); pass --sigma to denoise "
                             f"anyway")
        self.say(f"estimated noise sigma{where}: {', '.join(f'{s:.6g}' for s in sigmas)}")
        return {"sigma": sigmas[0] if channel is None else sigmas}

    def estimated_psds(self, block, mask, channel, where):
        """One PSD per channel, from the data (or where the mask is nonzero)."""
        parts = _channels(block, channel)
        masks = [None] * len(parts) if mask is None else _channels(mask, channel)
        psds = [estimate_psd(part, mask=None if m is None else m != 0)
                for part, m in zip(parts, masks)]
        self.say(f"estimated noise PSD{where}: " + "; ".join(
            f"std {psd_sigma(p):.6g}, c {psd_concentration(p):.3g}{self._block_words(part, p)}"
            for part, p in zip(parts, psds)))
        return psds

    def _block_words(self, part, psd):
        """Names the larger blocks that noise this concentrated takes."""
        block = PSDAdaptation.geometry(self.profile, part.shape, psd).block
        return "" if block is None else f" (filtered in {'x'.join(map(str, block))} blocks)"

    def run(self, block, noise, channel, where):
        self.say(f"denoising {self.name}{where}")
        return korvo(block, **noise, profile=self.profile, channel_axis=channel,
                     shared_groups=self.shared, stages=self.args.stages, progress=not self.args.quiet)

    def _check_shared(self, block, channel):
        """--shared-groups against the item's channels, before any estimate."""
        if self.shared is False:
            return
        if channel is None:
            raise ValueError(f"--shared-groups needs channels, and {self.name} has none "
                             f"(its axes are space only)")
        if self.auto:
            raise ValueError("--shared-groups filters every channel under one noise description, "
                             "and --psd auto estimates a PSD per channel: give --psd FILE or "
                             "--sigma, or leave --shared-groups out")
        count = block.shape[channel]
        if self.shared != "mean" and not -count <= self.shared < count:
            raise ValueError(f"--shared-groups {self.shared}: {self.name} has {count} channels, "
                             f"numbered from 0")

    def denoise(self, block, labels, where, mask=None, sigma_map=None):
        """Denoise one item (2 or 3 space axes, maybe a channel axis); an alpha
        channel (TIFF samples S) is written back as read."""
        samples = labels.find("S")
        if not self.alpha or samples < 0:
            return self._denoise(block, labels, where, mask, sigma_map)
        colours = [i for i in range(block.shape[samples]) if i not in self.alpha]
        out = np.array(block, self.dtype)
        part = [None if a is None else np.take(a, colours, axis=samples)
                for a in (block, mask, sigma_map)]
        out[(slice(None),) * samples + (colours,)] = self._denoise(part[0], labels, where,
                                                                   *part[1:])
        return out

    def _denoise(self, block, labels, where, mask, sigma_map):
        flat = labels.find("Z") if "Z" in labels and block.shape[labels.find("Z")] == 1 else -1
        if flat >= 0:  # a single slice is an image
            block, labels = np.take(block, 0, axis=flat), labels.replace("Z", "")
            mask, sigma_map = (None if a is None else np.take(a, 0, axis=flat)
                               for a in (mask, sigma_map))
        channel = _channel_axis(labels)
        self._check_shared(block, channel)
        self.check_values(None if channel is None else block.shape[channel])
        if channel is not None:
            where += f", {block.shape[channel]} channels"
        if self.auto:  # korvo takes one PSD for all channels: denoise them one by one
            psds = self.estimated_psds(block, mask, channel, where)
            outs = [self.run(part, {"psd": p}, None, where)
                    for part, p in zip(_channels(block, channel), psds)]
            out = outs[0] if channel is None else np.stack(outs, axis=channel)
        else:
            out = self.run(block, self.noise(block, channel, where, sigma_map), channel, where)
        if flat >= 0:
            out = np.expand_dims(out, flat)
        return _cast(out, self.dtype, self.scaling)


def _shared_groups(text):
    """--shared-groups as korvo's shared_groups: False, a channel index or 'mean'."""
    if text is None:
        return False
    if text in ("first", "mean"):
        return 0 if text == "first" else "mean"
    try:
        return int(text)
    except ValueError:
        raise ValueError(f"--shared-groups takes first, mean or a channel number, got {text!r}") \
            from None


def _count(n, noun):
    return f"{n} {noun}{'s' * (n != 1)}"


def _cast(result, dtype, scaling=None):
    """The result in the output type: integers rounded and clipped to their range
    (a scaled NIfTI's: its stored values, (result - intercept) / slope)."""
    if dtype == result.dtype:
        return result
    if scaling is not None:
        result = (result - np.float32(scaling[2])) / np.float32(scaling[1])
    if dtype.kind in "iu":
        info = np.iinfo(dtype)
        # The range's ends as floats of the result's type: a top that rounds up
        # (2^31 - 1 in float32 is 2^31) would wrap to the bottom in the cast.
        float_type = result.dtype.type if result.dtype.kind == "f" else np.float64
        top = float_type(info.max)
        if int(top) > info.max:
            top = np.nextafter(top, float_type(0))
        rounded = np.rint(result)
        out = np.clip(rounded, info.min, top).astype(dtype)
        out[rounded > top] = info.max
        return out
    return result.astype(dtype)


class _Printed(logging.Handler):
    """The noise parameters the noise models estimate (they log them), printed
    where the command line prints its own."""

    def emit(self, record):
        print(self.format(record), file=sys.stderr, flush=True)


def _warned(message, category, *_):
    print(f"korvo: warning: {_one_line(message)}", file=sys.stderr, flush=True)


@contextlib.contextmanager
def _reporting(on):
    """Estimates printed unless ``on`` is false; warnings always, one line each."""
    log, handler = logging.getLogger("korvo"), _Printed()
    level = log.level
    if on:
        log.addHandler(handler)
        log.setLevel(logging.INFO)
    try:
        with warnings.catch_warnings():
            warnings.showwarning = _warned
            yield
    finally:
        log.removeHandler(handler)
        log.setLevel(level)


def _check_companion(path, shape, context, source, source_shape, source_context, what):
    """A mask or sigma map goes with IN voxel by voxel: it must have IN's shape
    and, as far as the files tell, lie on IN's grid."""
    nifti = [c.get("kind") == "nifti" for c in (context, source_context)]
    read_as = "; NIfTI is read as (k, j, i), other formats as stored" if any(nifti) else ""
    if shape != source_shape:
        raise ValueError(f"{path}: the {what} has shape {shape}, {source} {source_shape}; they "
                         f"must match{read_as}")
    if all(nifti) and not np.allclose(context["image"].affine, source_context["image"].affine,
                                      atol=1e-4):
        raise ValueError(f"{path}: the {what}'s affine differs from {source}'s; voxels are paired "
                         f"by index, so resample the {what} onto {source}'s grid first")
    if any(nifti) and not all(nifti) and tuple(shape) == tuple(shape)[::-1]:
        warnings.warn(f"{path}: the {what} is paired with {source} voxel by voxel; NIfTI is "
                      f"read as (k, j, i), so a {what} stored in (i, j, k) order would fit "
                      f"this shape reversed, unnoticed: check its order")


def _denoise(args):
    from .io import (CHUNKED, check_axes, check_output, check_samples, read_volume,
                     volume_format, write_volume)

    check_output(args.output, source=args.input, force=args.force)
    run = _Run(args, args.input)
    if args.chunks is not None or {volume_format(args.input),
                                   volume_format(args.output)} & set(CHUNKED):
        return _denoise_chunked(args, run)
    started = time.monotonic()
    data, context = read_volume(args.input)
    check_samples(args.input, data)
    axes = _axes(args, context, data.shape)
    series, rest = _layout(axes, data.shape, args.input)
    order = series + rest
    data_t = np.transpose(data, order)
    # Arrays of IN's shape that go with it item by item.
    companions = {}
    for key, path, what in (("mask", args.psd_mask, "mask"),
                            ("sigma_map", args.sigma_map, "sigma map")):
        if path and path != "auto":
            extra, extra_context = read_volume(path)
            _check_companion(path, extra.shape, extra_context, args.input, data.shape, context,
                             what)
            companions[key] = np.transpose(extra, order)
    labels = "".join(axes[i] for i in rest)
    if args.dtype == "keep":
        run.keep(data.dtype, context, args.output)
    check_axes(args.output, axes, data.shape, run.dtype, context)
    run.alpha = context.get("alpha", ())
    count = int(np.prod(data_t.shape[:len(series)]))
    run.say(f"{args.input}: {_describe(axes, data.shape)}"
            + (f"; {_count(count, 'item')} along {''.join(axes[i] for i in series)}"
               if series else ""))

    def results():
        for number, (index, block) in enumerate(_items(data_t, series), start=1):
            where = ""
            if series:
                at = ", ".join(f"{axes[a]} {i}" for a, i in zip(series, index))
                where = f" [{at}] ({number}/{count})"
            yield run.denoise(block, labels, where,
                              **{key: extra[index] for key, extra in companions.items()})

    if order == sorted(order):  # series lead in the file: written item by item
        write_volume(args.output, results(), context, shape=data.shape, dtype=run.dtype)
    else:
        out = np.empty(data_t.shape, run.dtype)
        flat = out.reshape((-1,) + data_t.shape[len(series):])
        for number, result in enumerate(results()):
            flat[number] = result
        write_volume(args.output, np.transpose(out, np.argsort(order)), context)
    run.say(f"wrote {args.output} ({'x'.join(map(str, data.shape))} {run.dtype}, "
            f"{_how(args, run)}, {time.monotonic() - started:.1f} s)")
    return 0


# Noise parameters the command line takes one per channel (comma-separated).
PER_CHANNEL = ("sigma", "gain", "offset", "coils")


def _values(kind):
    """argparse type: one number, or one per channel of IN (comma-separated)."""
    def parse(text):
        try:
            values = tuple(kind(part) for part in text.split(","))
        except ValueError:
            raise argparse.ArgumentTypeError(f"expected a number, or one per channel separated "
                                             f"by commas, got {text!r}") from None
        return values[0] if len(values) == 1 else values
    return parse


def _listed(value):
    return ",".join(f"{v:g}" for v in value) if isinstance(value, tuple) else f"{value:g}"


def _how(args, run):
    """The noise the run assumed, in words."""
    return (f"{args.noise} noise model" if args.noise != "gaussian" else
           "estimated PSD" + (f" (noise where {args.psd_mask} is nonzero)" if args.psd_mask
                              else "") if run.auto else
           "PSD from " + args.psd if args.psd else
           f"sigma {_listed(args.sigma)}" if args.sigma is not None else
           "estimated sigma map" if args.sigma_map == "auto" else
           "sigma map from " + args.sigma_map if args.sigma_map else "estimated sigma")


# Chunk extent per space axis when neither --chunks nor the store says.
_CHUNK = 128


def _chunk_sizes(text, shape, stored):
    """Chunk extents of the space axes: --chunks N or one per axis (Z,Y,X),
    else the store's chunks grouped to about 128 voxels per axis."""
    if text is not None:
        try:
            sizes = [int(v) for v in text.split(",")]
        except ValueError:
            sizes = []
        if len(sizes) not in (1, len(shape)) or min(sizes, default=0) < 1:
            raise ValueError(f"--chunks takes N or {len(shape)} positive extents "
                             f"({','.join('ZYX'[-len(shape):])}), got {text!r}")
        sizes = sizes * len(shape) if len(sizes) == 1 else sizes
    elif stored:
        sizes = [c * max(1, round(_CHUNK / c)) for c in stored]
    else:
        sizes = [_CHUNK] * len(shape)
    return [min(s, n) for s, n in zip(sizes, shape)]


def _denoise_chunked(args, run):
    """Denoise chunk by chunk: IN read lazily, OUT written as chunks finish."""
    try:
        import dask.array  # noqa: F401
    except ImportError:
        raise ImportError("denoising chunk by chunk needs dask (pip install 'korvo[zarr]')") \
            from None
    from .io import _split_hdf5, close_files, open_chunked

    for given, name in ((args.sigma_map == "auto", "--sigma-map auto"),
                        (args.shared_groups, "--shared-groups"), (args.psd_mask, "--psd-mask")):
        if given:
            raise ValueError(f"{name} needs the whole volume in memory; chunk by chunk, give "
                             f"--sigma, --psd or a --sigma-map FILE (or none: estimated from "
                             f"the central block)")
    started = time.monotonic()
    files = [_split_hdf5(p) for p in (args.input, args.output)]
    same = all(files) and os.path.realpath(files[0][0]) == os.path.realpath(files[1][0])
    try:
        source, context = open_chunked(args.input, writable=same)
        shape = source.shape
        _chunked_items(args, run, source, context)
    finally:
        close_files()
    run.say(f"wrote {args.output} ({'x'.join(map(str, shape))} {run.dtype}, "
            f"{_how(args, run)}, {time.monotonic() - started:.1f} s)")
    return 0


def _chunked_items(args, run, source, context):
    import dask.array as da
    from dask.diagnostics import ProgressBar
    from dask.utils import SerializableLock

    from .chunked import central_block
    from .io import ChunkedOutput, check_axes, open_chunked, volume_format

    axes, shape = _axes(args, context, source.shape), source.shape
    _layout(axes, shape, args.input)  # refuses what holds no image or volume
    # Space axes go to korvo; series, channels and a single slice are looped over.
    spatial = [i for i, a in enumerate(axes) if a in "ZYX" and (a != "Z" or shape[i] > 1)]
    loop = [i for i in range(len(shape)) if i not in spatial]
    stored = context.get("chunks")
    sizes = _chunk_sizes(args.chunks, [shape[i] for i in spatial],
                         stored and [stored[i] for i in spatial])
    chunks = [1] * len(shape)
    for i, s in zip(spatial, sizes):
        chunks[i] = s
    # h5py calls are serialised: reads and writes share one lock.
    hdf5 = "hdf5" in (context["kind"], volume_format(args.output),
                      args.sigma_map and volume_format(args.sigma_map))
    lock = SerializableLock() if hdf5 else False
    z = da.from_array(source, chunks=tuple(chunks), lock=lock)
    noise_map = None
    if args.sigma_map:  # a file, read chunk by chunk beside IN
        mapped, mapped_context = open_chunked(args.sigma_map)
        _check_companion(args.sigma_map, mapped.shape, mapped_context, args.input, shape,
                         context, "sigma map")
        noise_map = da.from_array(mapped, chunks=tuple(chunks), lock=lock)
    if args.dtype == "keep":
        run.keep(source.dtype, context, args.output)
    check_axes(args.output, axes, shape, run.dtype, context)
    alpha = run.alpha = context.get("alpha", ())
    channel = _channel_axis("".join(axes[i] for i in loop))  # looped over, item by item
    channel = None if channel is None else loop[channel]
    run.check_values(None if channel is None else shape[channel])
    run.profile.num_threads = None  # one thread per chunk; --threads chunks at once
    count = int(np.prod([shape[i] for i in loop]))
    grid = int(np.prod([-(-shape[i] // s) for i, s in zip(spatial, sizes)]))
    run.say(f"{args.input}: {_describe(axes, shape)}; chunks of {'x'.join(map(str, sizes))}, "
            f"{grid} per {'volume' if len(spatial) == 3 else 'image'}"
            + (f", {_count(count, 'item')} along {''.join(axes[i] for i in loop)}" if loop else ""))
    out = ChunkedOutput(args.output, shape, run.dtype, chunks, context)
    where = ""
    try:
        for number, index in enumerate(np.ndindex(*[shape[i] for i in loop]), start=1):
            at = dict(zip(loop, index))
            key = tuple(at.get(i, slice(None)) for i in range(len(shape)))
            item = z[key]
            where = f" [{', '.join(f'{axes[a]} {i}' for a, i in at.items())}] " \
                    f"({number}/{count})" if count > 1 else ""
            noise = None if run.auto else run.given(None if noise_map is None else noise_map[key])
            if noise is not None and channel is not None:  # this channel's own values
                noise = {k: v[at[channel]] if isinstance(v, tuple) else v
                         for k, v in noise.items()}
            if any(axes[a] == "S" and i in alpha for a, i in at.items()):
                y = item.astype(run.dtype)  # an alpha channel: written back as read
            else:
                if noise is None:  # estimated here, on the central block
                    block = central_block(item, sizes)
                    sample = f"{where} (central {'x'.join(map(str, block.shape))} block)"
                    noise = ({"psd": run.estimated_psds(block, None, None, sample)[0]}
                             if run.auto else run.noise(block, None, sample))
                run.say(f"denoising {args.input}{where}")
                y = korvo(item, **noise, profile=run.profile, stages=args.stages)
                if run.dtype != y.dtype:
                    y = y.map_blocks(_cast, run.dtype, dtype=run.dtype)
            y = y[tuple(None if i in at else slice(None) for i in range(len(shape)))]
            region = tuple(slice(at[i], at[i] + 1) if i in at else slice(None)
                           for i in range(len(shape)))
            with ProgressBar(out=sys.stderr) if not args.quiet else contextlib.nullcontext():
                da.store(y, out.target, regions=region, lock=lock, scheduler="threads",
                         num_workers=args.threads or None)
        out.commit()
    except NonFiniteError:  # found in a chunk: the whole file is not read up front
        out.discard()
        raise NonFiniteError(f"{args.input}{where} holds NaN or infinite samples") from None
    except BaseException:
        out.discard()
        raise


def _estimate(args):
    from .io import STREAMED, check_output, check_samples, read_volume, volume_format, write_volume
    from .noise_models import estimate_poisson_gaussian, estimate_rician_sigma

    if args.psd and args.noise != "gaussian":
        raise ValueError(f"--psd estimates additive Gaussian noise; --noise {args.noise} is not")
    if args.coils is not None and args.noise != "rician":
        raise ValueError("--coils is a parameter of --noise rician")
    psd_file = None if args.psd in (None, "print") else args.psd
    if psd_file:
        if volume_format(psd_file) not in STREAMED:
            raise ValueError(f"{psd_file}: --psd FILE writes a .npy, NIfTI or TIFF file")
        check_output(psd_file, source=args.input, force=args.force)
    data, context = read_volume(args.input)
    check_samples(args.input, data)
    axes = context["axes"]
    series, rest = _layout(axes, data.shape, args.input)
    data_t = np.transpose(data, series + rest)
    channel = _channel_axis("".join(axes[i] for i in rest))
    alpha = context.get("alpha", ()) if channel is not None else ()  # no noise to estimate
    count = int(np.prod(data_t.shape[:len(series)])) * (1 if channel is None else
                                                        data_t.shape[len(series) + channel]
                                                        - len(alpha))
    if psd_file and count > 1:
        raise ValueError(f"{args.input} holds {count} items or channels; --psd FILE writes "
                         f"the PSD of one")
    # One item and channel at a time: a channel is a copy.
    parts = (np.squeeze(part) for _, block in _items(data_t, series)
             for c, part in enumerate(_channels(block, channel)) if c not in alpha)
    for part in parts:
        if args.psd:
            psd = estimate_psd(part)
            print(f"std {psd_sigma(psd):.6g} concentration {psd_concentration(psd):.4g}")
            if psd_file:
                write_volume(psd_file, psd)
        elif args.noise == "poisson-gaussian":
            print("gain {:.6g} sigma {:.6g} offset {:.6g}".format(*estimate_poisson_gaussian(part)))
        elif args.noise == "rician":
            coils = 1 if args.coils is None else args.coils  # 0 is refused, not read as 1
            print(f"{estimate_rician_sigma(part, coils=coils):.6g}")
        else:
            print(f"{estimate_sigma(part):.6g}")
    return 0


# ----------------------------------------------------------------------------
# Demo


def _psnr(estimate, clean):
    mse = float(np.mean((np.asarray(estimate, np.float64) - clean) ** 2))
    peak = float(clean.max() - clean.min())
    return 10.0 * np.log10(peak * peak / mse)


def _cuts(array):
    """Middle slices: one per axis of a volume, the image itself for an image."""
    if array.ndim == 2:
        return [("image", array)]
    names = ("z", "y", "x")
    return [(f"{names[a]} = {n // 2}", np.take(array, n // 2, axis=a))
            for a, n in enumerate(array.shape)]


def _grey_panels(noisy, denoised, sigma):
    """The figure without matplotlib: rows of noisy, denoised, difference, in grey."""
    def grey(a):
        return np.clip(a * 255.0, 0, 255)

    def diff(a):
        return np.clip(127.5 + a * (127.5 / (3.0 * sigma)), 0, 255)

    cuts = [(a, b) for (_, a), (_, b) in zip(_cuts(noisy), _cuts(denoised))]
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


def _figure(path, clean, noisy, denoised, sigma):
    """Draw the demo figure with matplotlib; False when it is not installed."""
    try:
        from matplotlib.backends.backend_agg import FigureCanvasAgg
        from matplotlib.figure import Figure
    except ImportError:
        return False
    rows = list(zip(_cuts(noisy), _cuts(denoised)))
    low, high = float(clean.min()), float(clean.max())
    span = 3.0 * sigma
    figure = Figure(figsize=(10.5, 3.3 * len(rows) + 0.4), layout="constrained")
    FigureCanvasAgg(figure)
    axes = figure.subplots(len(rows), 3, squeeze=False)
    titles = (f"noisy  (PSNR {_psnr(noisy, clean):.2f} dB)",
              f"denoised  (PSNR {_psnr(denoised, clean):.2f} dB)",
              "difference")
    for row, ((where, a), (_, b)) in zip(axes, rows):
        for ax, panel, title in zip(row, (a, b, a - b), titles):
            image = ax.imshow(panel, cmap="gray", vmin=low, vmax=high, interpolation="nearest")
            if ax is row[2]:
                image.set(cmap="RdBu_r", clim=(-span, span))
            if ax in axes[0]:  # column titles once
                ax.set_title(title, fontsize=11)
            ax.set_xticks([])
            ax.set_yticks([])
        row[0].set_ylabel(f"middle slice {where}" if noisy.ndim == 3 else where, fontsize=11)
        bar = figure.colorbar(image, ax=row[2], shrink=0.85)
        bar.set_label("noisy - denoised (data units)")
    figure.suptitle(f"korvo: phantom {'x'.join(map(str, noisy.shape))}, white noise "
                    f"sigma {sigma:g} (PSNR over the whole {'volume' if noisy.ndim == 3 else 'image'})",
                    fontsize=12)
    figure.savefig(path, dpi=100)
    return True


def _demo(args):
    from ._png import write_png
    from .phantom import phantom

    folder = os.path.dirname(os.path.abspath(args.png))
    if not os.path.isdir(folder):  # before the run, not after it
        raise ValueError(f"{args.png}: the folder {folder} does not exist")
    shape = tuple(args.shape)
    clean = phantom(shape)
    rng = np.random.default_rng(args.seed)
    noisy = (clean + args.sigma * rng.standard_normal(clean.shape)).astype(np.float32)
    print(f"phantom {'x'.join(map(str, shape))}, white noise sigma {args.sigma:g}")
    started = time.monotonic()
    denoised = korvo(noisy, sigma=args.sigma, progress=not args.quiet)
    seconds = time.monotonic() - started
    print(f"PSNR noisy:    {_psnr(noisy, clean):6.2f} dB")
    print(f"PSNR denoised: {_psnr(denoised, clean):6.2f} dB  ({seconds:.1f} s)")
    if not _figure(args.png, clean, noisy, denoised, args.sigma):
        write_png(args.png, _grey_panels(noisy, denoised, args.sigma))
        print("(grey panels: install matplotlib, pip install 'korvo[plot]', for a labelled figure)")
    print(f"wrote {args.png} (middle slices: noisy, denoised, difference)")
    return 0


# ----------------------------------------------------------------------------
# Command line


class _Parser(argparse.ArgumentParser):
    """Usage errors on one line, as every other refusal (subcommands inherit it)."""

    def error(self, message):
        self.exit(2, f"korvo: error: {message} (see: {self.prog} --help)\n")


def _parser():
    parser = _Parser(
        prog="korvo",
        description="Denoise 3-D volumes and 2-D images corrupted by white or coloured noise.")
    parser.add_argument("--version", action="version", version=f"korvo {__version__}")
    parser.add_argument("--traceback", action="store_true",
                        help="show the full traceback of an error (for bug reports)")
    commands = parser.add_subparsers(dest="command", required=True)

    d = commands.add_parser(
        "denoise", help="denoise a file (.npy, .nii, .nii.gz, .tif, .tiff, .zarr, .h5:/dataset)",
        description="Denoise IN and write OUT. Without --sigma or --psd the noise level is "
                    "estimated (per item and channel); --psd auto estimates the noise PSD "
                    "(coloured noise) the same way. Axes are taken from the file where it "
                    "labels them (TIFF): channels (C, or S of RGB) are denoised one by one, a "
                    "time or other series axis item by item; Z, Y, X are space. Unlabelled "
                    "arrays: the last two axes are an image, a third from the end z, a fourth "
                    "a series (NIfTI: the time axis), unless --axes names them. OUT is "
                    "written only when complete, never over IN; TIFF calibration (resolution, ImageJ spacing and unit, OME pixel "
                    "sizes), axis labels, slice and channel names and compression, and the "
                    "NIfTI header are kept; an OUT format that "
                    "cannot hold IN's axes (channels in NIfTI, say) is refused. Zarr stores "
                    "(OME-Zarr: level 0, its axes and scale kept) and HDF5 datasets "
                    "(file.h5:/path, attributes kept) are read and written chunk by chunk, as "
                    "are .npy files with --chunks.")
    d.add_argument("input", metavar="IN")
    d.add_argument("output", metavar="OUT")
    noise = d.add_mutually_exclusive_group()
    noise.add_argument("--sigma", type=_values(float), metavar="S[,S...]",
                       help="standard deviation of white noise (one, or one per channel)")
    noise.add_argument("--psd", metavar="FILE|auto",
                       help="noise PSD (.npy, ...), E|fftn(noise)|^2 over the PSD's own shape; "
                            "'auto': estimate it from IN (per item and channel)")
    noise.add_argument("--sigma-map", metavar="FILE|auto",
                       help="per-voxel noise std for noise whose level varies in space (IN's "
                            "shape); 'auto': estimate a slowly varying map from IN")
    d.add_argument("--noise", choices=MODELS,
                   default="gaussian",
                   help="noise model: additive Gaussian (default), photon counts "
                        "(poisson-gaussian: --gain, --offset, --sigma read noise) or magnitude "
                        "MRI (rician: --sigma per channel, --coils); parameters not given are "
                        "estimated from IN (poisson-gaussian: all three, or with --gain given, "
                        "--sigma and --offset not given are 0)")
    d.add_argument("--gain", type=_values(float), metavar="G[,G...]",
                   help="poisson-gaussian: data units per photon")
    d.add_argument("--offset", type=_values(float), metavar="O[,O...]",
                   help="poisson-gaussian: dark level")
    d.add_argument("--coils", type=_values(int), metavar="L[,L...]",
                   help="rician: receive coils (default 1)")
    d.add_argument("--axes", metavar="LABELS",
                   help="IN's axes where the file does not label them (.npy, plain TIFF, Zarr, "
                        "HDF5): one letter per axis, Z Y X (space), C (channels), T (a series); "
                        "e.g. YXC for a colour image")
    d.add_argument("--shared-groups", metavar="first|mean|N",
                   help="channels: find the groups once, on the first channel, channel N or the "
                        "channels' mean, and filter every channel with them")
    d.add_argument("--psd-mask", metavar="FILE",
                   help="with --psd auto: estimate the PSD only where FILE (IN's shape) is "
                        "nonzero, a region of noise alone such as the background")
    d.add_argument("--stages", choices=("both", "ht"), default="both",
                   help="both stages (default) or hard thresholding only")
    d.add_argument("--dtype", choices=("float32", "keep"), default="float32",
                   help="sample type of OUT: float32 (default, nothing lost) or keep IN's "
                        "(integers rounded and clipped to their range; a scaled NIfTI keeps "
                        "its slope and intercept in a NIfTI OUT, else becomes float32)")
    d.add_argument("--threads", type=_non_negative,
                   help="worker threads (default and 0: all cores)")
    d.add_argument("--set", action="append", metavar="NAME=VALUE",
                   help="profile setting, e.g. hard_threshold=2.5, ht.search_window=5,5,3, "
                        "split_block_extraction=false,false,true (repeatable)")
    d.add_argument("--chunks", metavar="N|Z,Y,X",
                   help="denoise chunk by chunk, reading IN and writing OUT as chunks finish "
                        "(always for .zarr and .h5:/dataset): chunk extent per space axis "
                        "(default: the store's chunks grouped to about 128)")
    d.add_argument("-f", "--force", action="store_true", help="replace an existing OUT")
    d.add_argument("-q", "--quiet", action="store_true", help="no progress output")
    d.set_defaults(run=_denoise)

    e = commands.add_parser(
        "estimate", help="print the estimated noise parameters of a file",
        description="Print the noise parameters estimated from IN, one line per item and "
                    "channel: the sigma of white Gaussian noise (default); with --noise, "
                    "'gain G sigma S offset O' of photon counts or the per-channel sigma of "
                    "magnitude MRI; with --psd, the std and concentration of the estimated noise "
                    "PSD (1: white), which --psd FILE also writes for korvo denoise --psd FILE.")
    e.add_argument("input", metavar="IN")
    e.add_argument("--noise", choices=MODELS, default="gaussian", help="noise model")
    e.add_argument("--coils", type=int, help="rician: receive coils (default 1)")
    e.add_argument("--psd", metavar="FILE", nargs="?", const="print",
                   help="estimate the noise PSD; with FILE (.npy, ...) also write it")
    e.add_argument("-f", "--force", action="store_true", help="replace an existing --psd FILE")
    e.set_defaults(run=_estimate)

    m = commands.add_parser("demo", help="denoise a synthetic phantom and write a PNG",
                            description="Denoise a synthetic phantom, print the PSNR before "
                                        "and after, draw the middle slices as a PNG "
                                        "(labelled with matplotlib, else grey panels).")
    m.add_argument("--shape", type=int, nargs="+", default=[64, 64, 64],
                   help="phantom shape, 2 or 3 extents (default 64 64 64)")
    m.add_argument("--sigma", type=float, default=0.1, help="noise sigma (default 0.1)")
    m.add_argument("--seed", type=int, default=0)
    m.add_argument("--png", default="korvo-demo.png", help="output image (default korvo-demo.png)")
    m.add_argument("-q", "--quiet", action="store_true", help="no progress output")
    m.set_defaults(run=_demo)
    return parser


def _one_line(exc):
    text = " ".join(str(exc).split())
    return text or type(exc).__name__


class _Terminated(KeyboardInterrupt):
    """SIGTERM (timeout, batch schedulers, container stops): unwound like
    Ctrl-C, so that no temporary output is left behind."""


def _on_terminate(owner):
    def handler(signum, frame):
        if os.getpid() != owner:  # a forked worker ends as it would have
            signal.signal(signum, signal.SIG_DFL)
            os.kill(os.getpid(), signum)
            return
        # One is enough: a second (timeout sends two) would break into the cleanup.
        signal.signal(signum, signal.SIG_IGN)
        raise _Terminated
    return handler


# Options whose value is a number or a comma-separated list of them.
_NUMBER_OPTIONS = ("--sigma", "--gain", "--offset")


def _attach_negative_numbers(argv):
    """argparse takes a value such as '-1e6' or '-1,-2' for an option of its own
    (it knows only plain negative numbers); after a numeric option it is that
    option's value."""
    out = []
    for token in argv:
        previous = out[-1] if out else ""
        # argparse takes unique prefixes of an option too; after "--" all is positional.
        if "--" not in out and len(previous) > 2 and token.startswith("-") \
                and any(o.startswith(previous) for o in _NUMBER_OPTIONS):
            with contextlib.suppress(ValueError):
                [float(part) for part in token.split(",")]
                out[-1] += "=" + token
                continue
        out.append(token)
    return out


def main(argv=None):
    parser = _parser()
    args = parser.parse_args(_attach_negative_numbers(sys.argv[1:] if argv is None else argv))
    previous = None
    with contextlib.suppress(ValueError):  # not the main thread: leave SIGTERM alone
        previous = signal.signal(signal.SIGTERM, _on_terminate(os.getpid()))
    try:
        with _reporting(not getattr(args, "quiet", False)):
            return args.run(args)
    except _Terminated:
        print("\nkorvo: terminated", file=sys.stderr)
        return 128 + signal.SIGTERM
    except KeyboardInterrupt:
        print("\nkorvo: interrupted", file=sys.stderr)
        return 130
    except _USER_ERRORS as exc:
        if args.traceback:
            raise
        print(f"korvo: error: {_one_line(exc)}", file=sys.stderr)
        return 2
    except Exception as exc:
        if args.traceback:
            raise
        print(f"korvo: internal error: {type(exc).__name__}: {_one_line(exc)} "
              f"(--traceback shows where)", file=sys.stderr)
        return 1
    finally:
        if previous is not None:
            signal.signal(signal.SIGTERM, previous)


if __name__ == "__main__":
    sys.exit(main())
