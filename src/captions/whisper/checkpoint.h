#pragma once
// Reads a PyTorch checkpoint (a zip holding a pickled state dict and raw tensor storages)
// as plain float tensors. The pickle is run by a small machine that knows only what a
// saved state dict is made of: dicts, ordered dicts, strings, numbers, tuples, lists,
// tensors rebuilt from half or float storages. Anything else (a foreign class, a call to
// some other function) stops the read with a sentence before it could do anything.
// The file is only read, never written.

#include "base/error.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace plim::whisper {

struct Tensor {
    std::vector<int64_t> shape;
    std::vector<float> data; // row-major, contiguous
    int64_t dim(size_t i) const { return i < shape.size() ? shape[i] : 0; }
    bool operator==(const Tensor&) const = default;
};

struct Checkpoint {
    std::map<std::string, int64_t> dims;    // the "dims" entry's whole numbers
    std::map<std::string, Tensor> weights;  // the "model_state_dict" entry
};

// Reads an OpenAI-style checkpoint: {"dims": {...}, "model_state_dict": {...}}.
Result<Checkpoint> readCheckpoint(const std::filesystem::path& path);

// Half precision bits to float, subnormals, infinities and NaN included.
float halfToFloat(uint16_t bits);

} // namespace plim::whisper
