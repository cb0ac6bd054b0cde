#pragma once
// Sound to timed segments, one 30-second window after another: each window's audio through
// the encoder, its tokens decoded after the earlier windows' text (again hotter when the
// result looks poor), cut into segments at its timestamp pairs and timed word by word.

#include "base/error.h"
#include "captions/whisper/decoding.h"
#include "captions/whisper/model.h"
#include "captions/whisper/tokenizer.h"
#include "captions/whisper_segments.h"

#include <atomic>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace plim::whisper {

// One decoding pass over a window at one temperature: decodeWindow, or a stand-in.
using WindowDecoder = std::function<Result<DecodeResult>(
    Model&, const Tokenizer&, std::span<const int> prompt, const std::atomic<bool>& stop, const DecodeOptions&)>;

// 16 kHz mono samples. `stop` is polled between windows and tokens; `progress` gets the
// share done, 0 to 1. A multilingual model transcribes in `languageToken`'s language, or,
// when it is empty, in the one it finds in the first window, which is then put there.
Result<std::vector<WhisperSegment>> transcribeWindows(Model& model, const Tokenizer& tok, std::span<const float> samples,
    const std::atomic<bool>& stop, const std::function<void(double)>& progress, std::optional<int>& languageToken,
    const WindowDecoder& decode = decodeWindow);

} // namespace plim::whisper
