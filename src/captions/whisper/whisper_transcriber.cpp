#include "captions/whisper_transcriber.h"

#include "captions/whisper/checkpoint.h"
#include "captions/whisper/model.h"
#include "captions/whisper/tokenizer.h"
#include "captions/whisper/transcription.h"

namespace plim {

using namespace whisper;

struct WhisperTranscriber::Parts {
    Model model;
    Tokenizer tokenizer;
    std::string language;
};

WhisperTranscriber::WhisperTranscriber(std::unique_ptr<Parts> parts) : m(std::move(parts)) {}
WhisperTranscriber::~WhisperTranscriber() = default;

std::string WhisperTranscriber::language() const
{
    return m->language;
}

Result<std::unique_ptr<WhisperTranscriber>> WhisperTranscriber::load(const std::filesystem::path& folder)
{
    auto checkpoint = readCheckpoint(folder / "model.pt");
    if (!checkpoint)
        return std::unexpected(checkpoint.error());
    auto model = Model::create(std::move(*checkpoint));
    if (!model)
        return fail("The Whisper model file " + (folder / "model.pt").string() + " could not be used: "
                + model.error().sentence + ". It was left as it is; downloading the model again replaces it.",
            Error::Kind::corrupt);
    auto tokenizer = Tokenizer::load(folder / "vocab.json", folder / "merges.txt", model->dims().vocab);
    if (!tokenizer)
        return std::unexpected(tokenizer.error());
    auto parts = std::make_unique<Parts>(Parts{std::move(*model), std::move(*tokenizer), {}});
    return std::unique_ptr<WhisperTranscriber>(new WhisperTranscriber(std::move(parts)));
}

Result<std::vector<WhisperSegment>> WhisperTranscriber::transcribe(std::span<const float> samples,
    const std::atomic<bool>& stop, const std::function<void(double)>& progress, std::optional<std::string> language)
{
    Model& model = m->model;
    const Tokenizer& tok = m->tokenizer;
    std::optional<int> languageToken;
    if (tok.multilingual() && language && !language->empty()) {
        languageToken = tok.languageToken(*language);
        if (!languageToken)
            return fail("The Whisper model does not know the language \u201c" + *language
                + "\u201d. Nothing was transcribed; choose another language or let the model find it.");
    }
    m->language = tok.multilingual() ? "" : "en";
    auto segments = transcribeWindows(model, tok, samples, stop, progress, languageToken);
    if (tok.multilingual() && languageToken)
        m->language = tok.languageCode(*languageToken);
    return segments;
}

} // namespace plim
