// Any events in any order: the client behaves like the model of its rules. Two bytes are the
// options; each following three bytes are an event, with its letter as in histories. One thread;
// there is no lock.

#include "History.h"
#include "Input.h"

namespace {

using namespace orvx::simulation;
using orvx::fuzz::Input;

/// The letters of all events.
const std::string& letters() {
    static const std::string known = [] {
        std::set<char> letters;
        for (const Event& event : historyOf(1, 5'000)) {
            letters.insert(event.what);
        }
        return std::string(letters.begin(), letters.end());
    }();
    return known;
}

template <typename Choice, std::size_t Count>
Choice among(unsigned& bits, const Choice (&choices)[Count]) {
    const Choice chosen = choices[bits % Count];
    bits /= Count;
    return chosen;
}

Options optionsFrom(Input& input) {
    static constexpr int kRetryIntervals[] = {500, 0, 20, 4000};
    static constexpr int kCheckIntervals[] = {10, 0, 1, 4};
    static constexpr int kHeadTimeouts[] = {3000, 0, 500, 15000};
    static constexpr std::uint16_t kMaxRetries[] = {0, 1, 3, 0};
    static constexpr bool kSwitch[] = {true, false};
    unsigned bits = input.byte();
    Options options;
    options.retryInterval = Milliseconds(among(bits, kRetryIntervals));
    options.checkInterval = std::chrono::seconds(among(bits, kCheckIntervals));
    options.headTimeout = Milliseconds(among(bits, kHeadTimeouts));
    options.maxRetries = among(bits, kMaxRetries);
    bits = input.byte();
    options.retry = among(bits, kSwitch);
    options.check = among(bits, kSwitch);
    options.retryOnStatus = among(bits, kSwitch);
    return options;
}

Event eventFrom(Input& input) {
    const unsigned what = input.byte();
    const auto letter = static_cast<char>(what);
    const bool isKnown = letters().find(letter) != std::string::npos;
    const unsigned one = input.byte();
    return {isKnown ? letter : letters()[what % letters().size()], one, input.byte()};
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    constexpr std::size_t kMostEvents = 200;
    Input input(bytes, size);
    const Options options = optionsFrom(input);
    History history;
    while (!input.isEmpty() && history.size() < kMostEvents) {
        history.push_back(eventFrom(input));
    }
    const std::string difference = play(options, history);
    orvx::fuzz::require(difference.empty(),
                        "client and model agree: " + difference + "\n" + textOf(history));
    return 0;
}
