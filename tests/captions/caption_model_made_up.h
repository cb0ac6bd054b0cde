#pragma once
// A made-up model size for download tests: three files of random bytes served by a test
// server, pinned the way the real ones are (the checkpoint by SHA-256, the tokenizer files
// by git blob identifiers).

#include "captions/caption_model_store.h"
#include "testkit/http_range_server.h"
#include "testkit/testkit.h"

#include <random>
#include <string>
#include <vector>

namespace plim {

struct MadeUpCaptionModel {
    CaptionModelSize size;
    std::vector<std::string> contents; // model.pt, vocab.json, merges.txt

    explicit MadeUpCaptionModel(testkit::HttpRangeServer& server, std::vector<size_t> lengths = {400'000, 60'000, 30'000})
    {
        const std::vector<std::string> names = {"model.pt", "vocab.json", "merges.txt"};
        testkit::TempDir scratch;
        size.name = "test";
        size.title = "Whisper test";
        for (size_t i = 0; i < names.size(); ++i) {
            std::mt19937 random(unsigned(i + 1));
            std::string bytes(lengths[i], '\0');
            for (char& c : bytes)
                c = char(random());
            CaptionModelFile file;
            file.source = i == 0 ? CaptionModelFile::Source::checkpoint : CaptionModelFile::Source::tokenizer;
            file.remotePath = (i == 0 ? "/models/" : "/tokenizer/") + names[i];
            file.path = names[i];
            file.size = int64_t(bytes.size());
            file.check = std::string(i == 0 ? 64 : 40, '0');
            testkit::writeText(scratch / names[i], bytes);
            file.check = *captionModelDigest(scratch / names[i], file);
            server.serve(file.remotePath, bytes);
            size.files.push_back(file);
            contents.push_back(std::move(bytes));
        }
    }
};

} // namespace plim
