"""Export to and import from the engine's files: each network's parameters as
one run of little-endian half floats in file order, speaker rows as half
floats [n, 256], and a whole model directory."""
import os

import numpy as np
import torch

from ..model_files import PHONE, PITCH, SPEAKERS, WAVEFORM, write_atomically

HALF_MAX = float(np.finfo(np.float16).max)


class ExportError(ValueError):
    """A tensor that cannot be written as half floats; names the tensor."""


def _file_order(tensor, transposed):
    """The tensor as the file holds it (see Network.file_tensors)."""
    t = tensor.detach().float().cpu()
    return t.permute(1, 0, 2) if transposed else t


def to_half(name, values):
    """float32 values -> half floats, refusing what half precision cannot hold."""
    values = np.asarray(values, dtype=np.float32)
    if not np.all(np.isfinite(values)):
        raise ExportError(f"{name}: holds {int(np.sum(~np.isfinite(values)))} non-finite values")
    peak = float(np.max(np.abs(values))) if values.size else 0.0
    if peak > HALF_MAX:
        raise ExportError(f"{name}: holds {peak:g}, beyond the half-precision range ±{HALF_MAX:g}")
    return values.astype("<f2")


def parameter_bytes(network):
    """The network's parameter file contents."""
    parts = [to_half(name, _file_order(tensor, transposed).numpy()).ravel()
             for name, tensor, transposed in network.file_tensors()]
    return np.concatenate(parts).tobytes()


def save_parameters(network, path):
    """Write the network's exact parameter file (checked before anything is written)."""
    write_atomically(path, parameter_bytes(network))


def load_parameters(network, path):
    """Read a parameter file into the network's tensors (widened to float32)."""
    flat = np.fromfile(path, dtype="<f2")
    tensors = network.file_tensors()
    expected = sum(entry[1].numel() for entry in tensors)
    if flat.size != expected:
        raise ValueError(f"{path}: {flat.size * 2} bytes, expected {expected * 2} for a "
                         f"{type(network).__name__} parameter file")
    offset = 0
    with torch.no_grad():
        for name, tensor, transposed in tensors:
            shape = _file_order(tensor, transposed).shape
            values = torch.from_numpy(flat[offset:offset + tensor.numel()].astype(np.float32)).view(shape)
            tensor.copy_(values.permute(1, 0, 2) if transposed else values)
            offset += tensor.numel()
    return network


def speaker_bytes(table):
    """Speaker rows [n, 256] as the engine's speaker file holds them."""
    table = table.detach().cpu().numpy() if isinstance(table, torch.Tensor) else np.asarray(table)
    if table.ndim != 2 or table.shape[1] != 256 or table.shape[0] == 0:
        raise ExportError(f"speaker table: shape {table.shape}, expected (n, 256) with n ≥ 1")
    return to_half("speaker table", table).tobytes()


def write_speakers(table, path):
    """Write speaker rows [n, 256] as the engine's speaker file."""
    write_atomically(path, speaker_bytes(table))


def write_model_directory(directory, phone, pitch, waveform, speakers):
    """Write the four files a model set is loaded from. Every file is
    converted and checked before the first one is written."""
    os.makedirs(directory, exist_ok=True)
    contents = {PHONE: parameter_bytes(phone), PITCH: parameter_bytes(pitch), WAVEFORM: parameter_bytes(waveform)}
    contents[SPEAKERS] = speaker_bytes(speakers)
    for model_file, data in contents.items():
        if model_file.size and len(data) != model_file.size:
            raise ExportError(f"{model_file.description}: {len(data)} bytes, expected {model_file.size}")
    for model_file, data in contents.items():
        write_atomically(os.path.join(directory, model_file.file_name), data)
    return directory
