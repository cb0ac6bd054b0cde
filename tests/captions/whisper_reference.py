"""Builds a small random-weight Whisper-shaped model in torch, saves it as an OpenAI-style
checkpoint with a made-up tokenizer, and writes torch's answers for the C++ engine to match:
log-mel frames, encoder states, decoder logits for a fixed prompt, and the greedy tokens of a
test signal's first window. Also writes a checkpoint whose pickle calls os.system.

usage: whisper_reference.py OUTPUT_FOLDER"""

import json
import math
import os
import sys

import numpy as np
import torch
import torch.nn.functional as F
from torch import nn

out = sys.argv[1]
torch.manual_seed(7)
rng = np.random.default_rng(7)

# --- tokenizer: the 256 byte symbols, then merges of a few English pieces -----------------
def byte_symbols():
    printable = list(range(ord("!"), ord("~") + 1)) + list(range(0xA1, 0xAD)) + list(range(0xAE, 0x100))
    table, extra = {}, 0
    for b in range(256):
        if b in printable:
            table[b] = chr(b)
        else:
            table[b] = chr(256 + extra)
            extra += 1
    return table

symbols = byte_symbols()
vocab = {symbols[b]: b for b in range(256)}
merge_list = [("Ġ", "t"), ("h", "e"), ("Ġt", "he"), ("i", "n"), ("in", "g"), ("Ġ", "a"), ("e", "r"),
              ("o", "n"), ("Ġ", "s"), ("r", "e"), ("Ġ", "c"), ("a", "t"), ("Ġc", "at"), ("Ġ", "w"),
              ("o", "r"), ("Ġw", "or"), ("Ġwor", "d"), ("Ġ", "r"), ("Ġr", "un"), ("u", "n"),
              ("Ġrun", "n"), ("Ġrunn", "ing"), ("l", "l"), ("Ġ", "1"), ("Ġ1", "2")]
merges = []
for a, b in merge_list:
    if a in vocab and b in vocab:
        vocab[a + b] = len(vocab)
        merges.append(f"{a} {b}")
text_tokens = len(vocab)
vocab["<|endoftext|>"] = text_tokens
languages = 99
n_vocab = text_tokens + 1 + 1 + languages + 6 + 1501
with open(os.path.join(out, "vocab.json"), "w", encoding="utf-8") as f:
    json.dump(vocab, f, ensure_ascii=False)
with open(os.path.join(out, "merges.txt"), "w", encoding="utf-8") as f:
    f.write("#version: 0.2\n" + "\n".join(merges) + "\n")

eot = text_tokens
sot = eot + 1
first_language = sot + 1
translate = first_language + languages
transcribe = translate + 1
no_speech = translate + 4
no_timestamps = translate + 5
first_timestamp = translate + 6
assert first_timestamp + 1501 == n_vocab

# --- the model --------------------------------------------------------------------------
dims = dict(n_mels=80, n_audio_ctx=1500, n_audio_state=64, n_audio_head=2, n_audio_layer=2,
            n_vocab=n_vocab, n_text_ctx=64, n_text_state=64, n_text_head=2, n_text_layer=2)


def sinusoids(length, channels):
    step = math.log(10000) / (channels // 2 - 1)
    scales = torch.exp(-step * torch.arange(channels // 2, dtype=torch.float64))
    t = torch.arange(length, dtype=torch.float64)[:, None] * scales[None, :]
    return torch.cat([torch.sin(t), torch.cos(t)], dim=1).float()


class Attention(nn.Module):
    def __init__(self, n, heads):
        super().__init__()
        self.heads = heads
        self.query = nn.Linear(n, n)
        self.key = nn.Linear(n, n, bias=False)
        self.value = nn.Linear(n, n)
        self.out = nn.Linear(n, n)

    def forward(self, x, source=None, causal=False):
        source = x if source is None else source
        q, k, v = self.query(x), self.key(source), self.value(source)
        split = lambda t: t.view(t.shape[0], t.shape[1], self.heads, -1).transpose(1, 2)
        q, k, v = split(q), split(k), split(v)
        w = q @ k.transpose(-1, -2) / math.sqrt(q.shape[-1])
        if causal:
            n = x.shape[1]
            w = w.masked_fill(torch.ones(n, n, dtype=torch.bool).triu(1), float("-inf"))
        w = w.softmax(-1)
        self.weights = w
        o = (w @ v).transpose(1, 2).reshape(x.shape)
        return self.out(o)


class Block(nn.Module):
    def __init__(self, n, heads, cross):
        super().__init__()
        self.attn = Attention(n, heads)
        self.attn_ln = nn.LayerNorm(n)
        if cross:
            self.cross_attn = Attention(n, heads)
            self.cross_attn_ln = nn.LayerNorm(n)
        self.mlp = nn.Sequential(nn.Linear(n, 4 * n), nn.GELU(), nn.Linear(4 * n, n))
        self.mlp_ln = nn.LayerNorm(n)

    def forward(self, x, audio=None):
        x = x + self.attn(self.attn_ln(x), causal=audio is not None)
        if audio is not None:
            x = x + self.cross_attn(self.cross_attn_ln(x), audio)
        return x + self.mlp(self.mlp_ln(x))


class Encoder(nn.Module):
    def __init__(self, d):
        super().__init__()
        n = d["n_audio_state"]
        self.conv1 = nn.Conv1d(d["n_mels"], n, 3, padding=1)
        self.conv2 = nn.Conv1d(n, n, 3, stride=2, padding=1)
        self.register_buffer("positional_embedding", sinusoids(d["n_audio_ctx"], n))
        self.blocks = nn.ModuleList(Block(n, d["n_audio_head"], False) for _ in range(d["n_audio_layer"]))
        self.ln_post = nn.LayerNorm(n)

    def forward(self, mel):
        x = F.gelu(self.conv1(mel))
        x = F.gelu(self.conv2(x)).permute(0, 2, 1) + self.positional_embedding
        for b in self.blocks:
            x = b(x)
        return self.ln_post(x)


class Decoder(nn.Module):
    def __init__(self, d):
        super().__init__()
        n = d["n_text_state"]
        self.token_embedding = nn.Embedding(d["n_vocab"], n)
        self.positional_embedding = nn.Parameter(0.1 * torch.randn(d["n_text_ctx"], n))
        self.blocks = nn.ModuleList(Block(n, d["n_text_head"], True) for _ in range(d["n_text_layer"]))
        self.ln = nn.LayerNorm(n)

    def forward(self, tokens, audio):
        x = self.token_embedding(tokens) + self.positional_embedding[: tokens.shape[1]]
        for b in self.blocks:
            x = b(x, audio)
        return self.ln(x) @ self.token_embedding.weight.T


class Whisper(nn.Module):
    def __init__(self, d):
        super().__init__()
        self.encoder = Encoder(d)
        self.decoder = Decoder(d)


model = Whisper(dims)
with torch.no_grad():
    for name, p in model.named_parameters():
        if name.endswith("ln.weight") or "_ln." in name and name.endswith("weight") or "ln_post.weight" in name:
            p.copy_(1 + 0.1 * torch.randn_like(p))
        elif "ln" in name and name.endswith("bias"):
            p.copy_(0.1 * torch.randn_like(p))
        elif name == "decoder.token_embedding.weight":
            p.copy_(0.5 * torch.randn_like(p))
        elif name.startswith("decoder.blocks") and "mlp" in name and name.endswith("weight"):
            p.mul_(4)  # strong enough that the greedy tokens vary: text, timestamp pairs, repeats
    # Saved in half precision like the published checkpoints; torch computes with the same rounded values.
    model.half()
    torch.save({"dims": dims, "model_state_dict": model.state_dict()}, os.path.join(out, "model.pt"))
    model.float()
model.eval()

# --- front end ----------------------------------------------------------------------------
def hz_to_mel(f):
    return np.where(f < 1000, f / (200 / 3), 15 + np.log(np.maximum(f, 1e-9) / 1000) / (np.log(6.4) / 27))


def mel_to_hz(m):
    return np.where(m < 15, m * (200 / 3), 1000 * np.exp((np.log(6.4) / 27) * (m - 15)))


def mel_filters(n_mels):
    freqs = np.arange(201) * 16000 / 400
    edges = mel_to_hz(np.linspace(0, hz_to_mel(np.array(8000.0)), n_mels + 2))
    rise = (freqs[None, :] - edges[:-2, None]) / (edges[1:-1] - edges[:-2])[:, None]
    fall = (edges[2:, None] - freqs[None, :]) / (edges[2:] - edges[1:-1])[:, None]
    weights = np.maximum(0, np.minimum(rise, fall)) * (2 / (edges[2:] - edges[:-2]))[:, None]
    return torch.from_numpy(weights.astype(np.float32))


def log_mel(audio, n_mels):
    audio = F.pad(audio, (0, 30 * 16000))
    stft = torch.stft(audio, 400, 160, window=torch.hann_window(400), return_complex=True)
    power = stft[..., :-1].abs() ** 2
    spec = torch.clamp(mel_filters(n_mels) @ power, min=1e-10).log10()
    spec = torch.maximum(spec, spec.max() - 8.0)
    return (spec + 4.0) / 4.0


# 12 s of sound: tones that glide and stop, bursts of noise, quiet stretches.
t = np.arange(12 * 16000) / 16000
signal = 0.3 * np.sin(2 * np.pi * (200 + 40 * t) * t) * (np.sin(2 * np.pi * 0.5 * t) > 0)
signal += 0.05 * rng.standard_normal(t.shape) * ((t % 3) < 1)
signal = signal.astype(np.float32)
signal.tofile(os.path.join(out, "signal.f32"))

with torch.no_grad():
    mel = log_mel(torch.from_numpy(signal), dims["n_mels"])
    content = len(signal) // 160
    window = F.pad(mel[:, :content], (0, 3000 - content))[:, :3000]
    audio = model.encoder(window[None])
    window.numpy().tofile(os.path.join(out, "mel.f32"))
    mel_filters(dims["n_mels"]).numpy().tofile(os.path.join(out, "filters.f32"))
    audio[0].numpy().tofile(os.path.join(out, "encoded.f32"))

    prompt = [sot, first_language, transcribe, first_timestamp, vocab["Ġthe"], vocab["Ġcat"], 100, first_timestamp + 7]
    logits = model.decoder(torch.tensor([prompt]), audio)[0]
    logits.numpy().tofile(os.path.join(out, "logits.f32"))

# Greedy decoding of the window with the timestamp rules, after `prompt` (which may put earlier
# text behind <|startofprev|> before <|startoftranscript|>).
def greedy(prompt):
    seq, sum_logprob, first_logprob = [], 0.0, None
    first = model.decoder(torch.tensor([prompt]), audio)[0]
    no_speech_prob = first[prompt.index(sot)].softmax(-1)[no_speech].item()
    row = first[-1].clone()
    for step in range(dims["n_text_ctx"] - len(prompt)):
        if not seq:
            row[blank] = -np.inf
            row[eot] = -np.inf
        row[sot:first_timestamp] = -np.inf
        last = len(seq) >= 1 and seq[-1] >= first_timestamp
        penultimate = len(seq) < 2 or seq[-2] >= first_timestamp
        if last:
            if penultimate:
                row[first_timestamp:] = -np.inf
            else:
                row[:eot] = -np.inf
        times = [s for s in seq if s >= first_timestamp]
        if times:
            row[first_timestamp: times[-1] if last and not penultimate else times[-1] + 1] = -np.inf
        if not seq:
            row[:first_timestamp] = -np.inf
            row[first_timestamp + 51:] = -np.inf
        logprobs = row.log_softmax(-1)
        if logprobs[first_timestamp:].logsumexp(-1) > logprobs[:first_timestamp].max():
            row[:first_timestamp] = -np.inf
        logprobs = row.log_softmax(-1)
        token = int(row.argmax())
        sum_logprob += logprobs[token].item()
        if first_logprob is None:
            first_logprob = logprobs[token].item()
        if token == eot:
            break
        seq.append(token)
        row = model.decoder(torch.tensor([prompt + seq]), audio)[0][-1].clone()
    return seq, sum_logprob, first_logprob, no_speech_prob


blank = [vocab["Ġ"]]
start = [sot, first_language, transcribe]
with torch.no_grad():
    seq, sum_logprob, first_logprob, no_speech_prob = greedy(start)
    # The same window continuing earlier text.
    after_text = [translate + 3] + seq[:20] + start
    after_seq, _, _, after_no_speech = greedy(after_text)

# --- word times: the greedy tokens aligned to the audio frames -----------------------------
# The cross-attention weights of every head in the upper half of the layers; per segment (cut
# where a timestamp follows a timestamp) its text tokens x its frames, each frame's weights
# put to zero mean and unit spread over the tokens, a 7-frame median along time (edge frames
# repeated), the heads averaged, then the least-cost monotonic path through the negated scores.
def warp_path(cost):
    rows, cols = cost.shape
    total = np.full((rows, cols), np.inf)
    step = np.zeros((rows, cols), dtype=int)
    for r in range(rows):
        for c in range(cols):
            best, how = (0.0, 0) if r == 0 and c == 0 else (np.inf, 0)
            for s, (pr, pc) in enumerate(((r - 1, c - 1), (r - 1, c), (r, c - 1))):
                if pr >= 0 and pc >= 0 and total[pr, pc] < best:
                    best, how = total[pr, pc], s
            total[r, c] = best + cost[r, c]
            step[r, c] = how
    r, c, path = rows - 1, cols - 1, []
    while True:
        path.append((r, c))
        if r == 0 and c == 0:
            break
        s = step[r, c]
        r, c = (r - 1 if s != 2 else r), (c - 1 if s != 1 else c)
    return path[::-1]


with torch.no_grad():
    model.decoder(torch.tensor([start + seq]), audio)
    upper = model.decoder.blocks[dims["n_text_layer"] // 2:]
    heads = torch.cat([b.cross_attn.weights[0] for b in upper]).double().numpy()  # heads x tokens x frames
    heads.astype(np.float32).tofile(os.path.join(out, "cross.f32"))
alignment = []
cut = [i for i in range(1, len(seq)) if seq[i] >= first_timestamp and seq[i - 1] >= first_timestamp]
spans = [([len(start) + i for i in range(a, b) if seq[i] < first_timestamp],
          seq[a] - first_timestamp, seq[b - 1] - first_timestamp) for a, b in zip([0] + cut, cut)]
# and, for a larger matrix, the text after the last pair over the whole sound
spans.append(([len(start) + i for i in range(cut[-1], len(seq)) if seq[i] < first_timestamp], 0, len(signal) // 320))
for rows, f0, f1 in spans:
    if not rows or f1 <= f0:
        continue
    w = heads[:, rows[0]:rows[-1] + 1, f0:f1]
    spread = w.std(axis=1, keepdims=True)
    w = np.where(spread > 1e-10, (w - w.mean(axis=1, keepdims=True)) / np.maximum(spread, 1e-30), 0)
    padded = np.concatenate([np.repeat(w[..., :1], 3, -1), w, np.repeat(w[..., -1:], 3, -1)], -1)
    smooth = np.median(np.stack([padded[..., k:k + w.shape[-1]] for k in range(7)]), axis=0)
    starts = {}
    for r, c in warp_path(-smooth.mean(axis=0)):
        starts.setdefault(r, c)
    alignment.append({"rows": [rows[0], rows[-1] + 1], "frames": [f0, f1],
                      "starts": [starts[r] for r in range(len(rows))] + [f1 - f0]})

with open(os.path.join(out, "reference.json"), "w") as f:
    json.dump({"dims": dims, "prompt": prompt, "greedy": seq, "sum_logprob": sum_logprob,
               "first_logprob": first_logprob, "no_speech_prob": no_speech_prob, "alignment": alignment,
               "after_text": after_text, "after_greedy": after_seq, "after_no_speech_prob": after_no_speech,
               "mel_shape": list(window.shape), "encoded_shape": list(audio[0].shape),
               "logits_shape": list(logits.shape)}, f)


class Trap:
    def __reduce__(self):
        return (os.system, ("touch " + os.path.join(out, "trap-sprung"),))


torch.save({"dims": dims, "model_state_dict": {"x": Trap()}}, os.path.join(out, "trap.pt"))
