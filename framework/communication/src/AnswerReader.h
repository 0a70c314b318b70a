#pragma once

#include "ReadBuffer.h"
#include "Request.h"

#include <cstddef>
#include <memory>
#include <string_view>

namespace orvx::communication {

/// Reads the answers to one request after another. Refuses answers that are not valid HTTP/1 or
/// that exceed a limit. Beast's parser checks the syntax; this class adds the checks that the
/// parser lacks.
///
/// For the I/O thread only.
class AnswerReader {
  public:
    enum class Progress { More, Done, Refused };
    struct Limits {
        std::size_t headerBytes;
        std::size_t bodyBytes;
        bool hasNoBody;  ///< Set for an answer to HEAD, whatever its headers announce.
    };

    AnswerReader();
    ~AnswerReader();
    AnswerReader(const AnswerReader&) = delete;
    AnswerReader& operator=(const AnswerReader&) = delete;

    /// Starts a new answer, which is written to `answer`. The object must live until the answer is
    /// complete.
    void begin(Answer& answer, const Limits& limits);
    /// Consumes as many of the bytes as possible. Throws std::bad_alloc.
    Progress take(ReadBuffer& bytes);
    /// Handles an orderly end of the connection. Returns whether the answer is complete.
    bool finish();

    /// The reason for Progress::Refused.
    CommunicationStatus refusal() const { return refusal_; }
    /// Whether any byte of the answer has come.
    bool hasBegun() const { return hasBegun_; }
    /// Whether the connection can be used for another request after Progress::Done.
    bool isConnectionKept() const;

  private:
    class Parser;

    void restart();
    void completeStatusLine(ReadBuffer& bytes);
    Progress waitForFraming(std::string_view part);
    Progress refuse(CommunicationStatus why);

    std::unique_ptr<Parser> parser_;
    Answer* answer_ = nullptr;
    Limits limits_{};
    std::size_t headerBytes_ = 0;   // Consumed bytes of all answers, including interim ones.
    std::size_t framingBytes_ = 0;  // Bytes of chunk headers and trailers.
    bool hasBegun_ = false;
    bool hasCode_ = false;
    CommunicationStatus refusal_ = CommunicationStatus::Ok;
};

}  // namespace orvx::communication
