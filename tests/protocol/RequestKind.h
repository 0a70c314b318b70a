#pragma once

#include "ProtocolTest.h"

#include <ostream>
#include <string>
#include <vector>

namespace orvx::serviceregistryclient {

/// What a client asks a registry for, and when.
enum class Kind {
    Put,            ///< The first PUT of a service, which is not retried.
    PutWithARetry,  ///< The same when one retry is allowed.
    PutAfterALoss,  ///< The PUT that brings back what the registry has forgotten.
    Head,
    Delete,
};

std::string nameOf(Kind kind);
inline void PrintTo(Kind kind, std::ostream* stream) {
    *stream << nameOf(kind);
}

/// The answer that decides, in its parts: success, but for a check that of a loss.
struct Decisive {
    explicit Decisive(Kind kind);
    std::string head() const { return "HTTP/1.1 " + status + "\r\n" + fields; }

    std::string status;  ///< Such as "201 Created".
    std::string fields;  ///< Header lines.
};

/// Puts the parts of the decisive answer in the place of "$status", its "$code", "$fields" and
/// "$head".
std::string withParts(std::string text, const Decisive& parts);

/// Has one request of a kind answered in a certain way, over a connection of its own, and looks at
/// what the client makes of it. One call for each test.
class KindTest : public ProtocolTest {
  protected:
    /// That this answer is one failure through the ordinary path of its kind, with this
    /// communication status where that is told, and that the client then takes a good answer.
    void expectFailure(Kind kind, const Script& answer, const std::string& why);
    /// That this answer counts as what it says, and that the client goes on after it.
    void expectSuccess(Kind kind, const Script& answer);

    /// Makes the client send a check whenever the one before has been answered.
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
