#include "suite/graph_reader.h"

#include "suite/graph_writer.h"

#include <algorithm>
#include <set>

namespace plim {

namespace {

// The slug of a stream file name, when the name is one.
std::optional<std::string> streamSlug(const std::string& name)
{
    for (std::string_view suffix : {".moments.1.jsonl", ".moments.jsonl"}) {
        if (name.size() > suffix.size() && name.ends_with(suffix)) {
            std::string slug = name.substr(0, name.size() - suffix.size());
            if (isValidAppSlug(slug))
                return slug;
        }
    }
    return std::nullopt;
}

} // namespace

std::string StreamFileIssue::sentence() const
{
    if (unreadable)
        return "Could not read the moment stream " + file.string() + " (" + *unreadable
            + "); its moments are left out and the file was left as it is.";
    return "Skipped " + std::to_string(brokenLines) + (brokenLines == 1 ? " line" : " lines")
        + " of the moment stream " + file.string()
        + " that are not whole moments; the file was left as it is and its other moments are shown.";
}

struct MomentIterator::Stream {
    std::string app;
    ChainedLineReader reader;
    std::vector<size_t> broken; // per file of the chain
    std::optional<Moment> head;
};

MomentIterator::MomentIterator(std::vector<std::unique_ptr<Stream>> streams, MomentQuery query,
    std::optional<Moment::Retraction::Index> retractions)
    : m_streams(std::move(streams))
    , m_query(std::move(query))
    , m_retractions(std::move(retractions))
{
    for (auto& stream : m_streams)
        advance(*stream);
}

MomentIterator::MomentIterator(MomentIterator&&) noexcept = default;
MomentIterator& MomentIterator::operator=(MomentIterator&&) noexcept = default;
MomentIterator::~MomentIterator() = default;

void MomentIterator::advance(Stream& stream)
{
    stream.head.reset();
    while (auto line = stream.reader.next()) {
        auto moment = Moment::fromJsonLine(line->text);
        if (!moment) {
            ++stream.broken[line->fileIndex];
            continue;
        }
        if (!m_query.matches(*moment))
            continue;
        if (m_retractions && m_retractions->claims(*moment))
            continue;
        stream.head = std::move(moment);
        return;
    }
}

std::optional<Moment> MomentIterator::next()
{
    Stream* earliest = nullptr;
    // Streams are in slug order, so on equal instants the first slug wins.
    for (auto& stream : m_streams)
        if (stream->head && (!earliest || stream->head->ts < earliest->head->ts))
            earliest = stream.get();
    if (!earliest)
        return std::nullopt;
    Moment out = std::move(*earliest->head);
    advance(*earliest);
    return out;
}

std::vector<StreamFileIssue> MomentIterator::issues() const
{
    std::vector<StreamFileIssue> out;
    for (const auto& stream : m_streams) {
        const auto& reports = stream->reader.reports();
        for (size_t i = 0; i < reports.size(); ++i) {
            StreamFileIssue issue{reports[i].path, reports[i].unreadable, reports[i].oversizedLines + stream->broken[i]};
            if (issue.unreadable || issue.brokenLines > 0)
                out.push_back(std::move(issue));
        }
    }
    return out;
}

MomentIterator MomentSequence::makeIterator() const
{
    SuiteGraphReader reader(m_root, m_maxLineBytes);
    std::optional<Moment::Retraction::Index> index;
    if (m_honorRetractions)
        index = reader.retractions();
    std::vector<std::unique_ptr<MomentIterator::Stream>> streams;
    for (const auto& app : m_apps) {
        auto chain = reader.chain(app);
        size_t files = chain.size();
        streams.push_back(std::unique_ptr<MomentIterator::Stream>(new MomentIterator::Stream{
            app, ChainedLineReader(std::move(chain), m_maxLineBytes), std::vector<size_t>(files, 0), std::nullopt}));
    }
    return MomentIterator(std::move(streams), m_query, std::move(index));
}

std::vector<Moment> MomentSequence::collect(std::vector<StreamFileIssue>* issues) const
{
    std::vector<Moment> out;
    auto it = makeIterator();
    while (auto moment = it.next())
        out.push_back(std::move(*moment));
    if (issues)
        *issues = it.issues();
    return out;
}

SuiteGraphReader::SuiteGraphReader(std::optional<fs::path> root, size_t maxLineBytes)
    : m_root(root ? *root : defaultGraphFolder())
    , m_maxLineBytes(maxLineBytes)
{
}

std::vector<std::string> SuiteGraphReader::appsPresent() const
{
    std::set<std::string> slugs;
    std::error_code ec;
    for (fs::directory_iterator it(m_root, ec), end; !ec && it != end; it.increment(ec)) {
        if (auto slug = streamSlug(it->path().filename().string()))
            slugs.insert(*slug);
    }
    return {slugs.begin(), slugs.end()};
}

std::vector<fs::path> SuiteGraphReader::chain(std::string_view app) const
{
    return {m_root / rotatedStreamName(app), m_root / activeStreamName(app)};
}

MomentSequence SuiteGraphReader::moments(MomentQuery query, bool honorRetractions) const
{
    MomentSequence sequence;
    sequence.m_root = m_root;
    sequence.m_apps = appsPresent();
    if (query.apps) {
        // Streams the query cannot match are not read at all.
        std::erase_if(sequence.m_apps, [&](const std::string& app) { return !query.apps->contains(app); });
    }
    sequence.m_query = std::move(query);
    sequence.m_honorRetractions = honorRetractions;
    sequence.m_maxLineBytes = m_maxLineBytes;
    return sequence;
}

Moment::Retraction::Index SuiteGraphReader::retractions() const
{
    Moment::Retraction::Index index;
    for (const auto& app : appsPresent()) {
        ChainedLineReader reader(chain(app), m_maxLineBytes);
        while (auto line = reader.next()) {
            if (line->text.find("\"retracts\"") == std::string::npos)
                continue;
            if (auto moment = Moment::fromJsonLine(line->text))
                index.add(*moment);
        }
    }
    return index;
}

} // namespace plim
