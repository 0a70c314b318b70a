#pragma once

#include "ReadBuffer.h"
#include "Request.h"

#include <cstddef>
#include <memory>
#include <string_view>

namespace orvx::communication {

/// Takes in the answer to one request after another, and refuses what is not a proper HTTP/1 answer
/// or too much of one. Beast's parser knows the syntax; the refusals that it lacks are here.
///
/// For the I/O thread only.
class AnswerReader {
  public:
    enum class Progress { More, Done, Refused };
    struct Limits {
        std::size_t headerBytes;
        std::size_t bodyBytes;
        bool hasNoBody;  ///< Of an answer to HEAD, whatever it announces.
    };

    AnswerReader();
    ~AnswerReader();
    AnswerReader(const AnswerReader&) = delete;
    AnswerReader& operator=(const AnswerReader&) = delete;

    /// The answer goes there; it must outlive what follows.
    void begin(Answer& answer, const Limits& limits);
    /// Consumes what it can of the bytes. Throws std::bad_alloc.
    Progress take(ReadBuffer& bytes);
    /// The connection has ended in order. Whether that ends the answer.
    bool takeEnd();

    /// Why an answer is Refused.
    CommunicationStatus refusal() const { return refusal_; }
    /// Whether any byte has come.
    bool hasBegun() const { return hasBegun_; }
    /// Whether a request may follow on the connection of an answer that is Done.
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
    std::size_t headerBytes_ = 0;   // Of all answers, the interim ones too, as far as consumed.
    std::size_t framingBytes_ = 0;  // Of the body's chunks, without what they carry.
    bool hasBegun_ = false;
    bool hasCode_ = false;
    CommunicationStatus refusal_ = CommunicationStatus::Ok;
};

}  // namespace orvx::communication
