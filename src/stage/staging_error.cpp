#include "stage/staging_error.h"

#include <sstream>

namespace plim {

namespace {
template<class... F>
struct Cases : F... {
    using F::operator()...;
};
}

std::string StagingError::sentence() const
{
    return std::visit(Cases{
                          [](const Unreadable& e) {
                              return "The plim could not be read: " + e.reason
                                  + ". Nothing was saved and your plim is untouched. "
                                    "Render again; if it keeps happening, record the plim again.";
                          },
                          [](const Unusable& e) { return e.sentence + " Nothing was saved."; },
                          [](const WriterFailed& e) {
                              return "The file could not be written: " + e.reason
                                  + ". Nothing was saved and your plim is untouched. "
                                  + (e.noSpace ? "Check there is free space where it saves, then render again."
                                               : "Check that the folder it saves in can be written to, then render again.");
                          },
                          [](const Stalled& e) {
                              std::ostringstream seconds;
                              seconds << e.seconds;
                              return "Rendering made no progress for " + seconds.str()
                                  + " seconds and was stopped. Nothing was saved and your plim is untouched. "
                                    "Render again; a smaller size is faster.";
                          },
                          [](const EmptyEdit&) {
                              return std::string("This edit removes the whole plim. Move the trim handles or "
                                                 "delete a cut, then render again.");
                          },
                      },
        value);
}

Error StagingError::error() const
{
    Error::Kind kind = Error::Kind::failed;
    if (std::holds_alternative<Unreadable>(value) || std::holds_alternative<Unusable>(value))
        kind = Error::Kind::unreadable;
    return Error{sentence(), kind};
}

} // namespace plim
