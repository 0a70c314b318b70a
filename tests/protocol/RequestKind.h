#pragma once

#include "ProtocolTest.h"

#include <ostream>
#include <string>
#include <vector>

namespace orvx::serviceregistryclient {

/// A request of the client, by method and situation.
enum class Kind {
    Put,            ///< The first PUT of a service, which is not retried.
    PutWithARetry,  ///< The same with one retry allowed.
    PutAfterALoss,  ///< The PUT that registers a lost service again.
    Head,
    Delete,
};

std::string nameOf(Kind kind);
inline void PrintTo(Kind kind, std::ostream* stream) {
    *stream << nameOf(kind);
}

/// The parts of the answer that decides: a success, and for a check a loss.
struct Decisive {
    explicit Decisive(Kind kind);
    std::string head() const { return "HTTP/1.1 " + status + "\r\n" + fields; }

    std::string status;  ///< For example "201 Created".
    std::string fields;  ///< Header lines.
};

/// Replaces "$status", its "$code", "$fields" and "$head" in the text by the parts of the deciding
/// answer.
std::string withParts(std::string text, const Decisive& parts);

/// Gives an answer to one request of a kind, over a new connection, and verifies the client's
/// reaction. One call for each test.
class KindTest : public ProtocolTest {
  protected:
    /// Expects that this answer is one failure that is handled in the normal way for its kind, with
    /// this communication status if it is reported, and that the client then accepts a valid
    /// answer.
    void expectFailure(Kind kind, const Script& answer, const std::string& why);
    /// Expects that this answer has its normal effect, and that the client continues after it.
    void expectSuccess(Kind kind, const Script& answer);

    /// Makes the client send a check as soon as the previous one is answered.
    void checkAtOnce();
    void answer(const std::vector<Script>& answers);
    /// An answer after which the connection is closed.
    static std::string last(int status, const testing::Headers& headers = {});

  private:
    void put(const Script& answer, const std::string& outcome);
    void putWithARetry(const Script& answer, const Recorder::Lines& requests);
    void remove(const Script& answer, const std::string& outcome);
    void lose(const std::vector<Script>& answers, const Recorder::Lines& requests);
};

}  // namespace orvx::serviceregistryclient
