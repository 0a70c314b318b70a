// Every fault of an answer, and every unusual but valid answer, for each kind of request.
//
// Threads: the test's, the client's and the server's.

#include "RequestKind.h"

#include <tuple>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::Combine;
using ::testing::Values;
using ::testing::ValuesIn;
using namespace std::string_literals;

enum class Ending { Open, Fin, Reset };

/// An answer as text, see withParts(). The text after "..." is repeated.
struct Answer {
    std::string name;
    std::string text;
    Ending ending = Ending::Open;
    std::string why = {};  // the communication status if the answer is invalid
};

Script scriptOf(const Answer& answer, Kind kind) {
    const std::string text = withParts(answer.text, Decisive(kind));
    const auto dots = text.find("...");
    if (dots != std::string::npos) {
        return Script(text.substr(0, dots)).sendEndlessly(text.substr(dots + 3));
    }
    Script script = text.empty() ? Script() : Script(text);
    return answer.ending == Ending::Fin     ? script.close()
           : answer.ending == Ending::Reset ? script.reset()
                                            : script;
}

using Case = std::tuple<Kind, Answer>;

void PrintTo(const Answer& answer, std::ostream* stream) {
    *stream << ::testing::PrintToString(answer.text);
}

std::string nameOfCase(const ::testing::TestParamInfo<Case>& info) {
    return "ToA" + nameOf(std::get<Kind>(info.param)) + "That" + std::get<Answer>(info.param).name;
}

const auto kAll =
    Values(Kind::Put, Kind::PutWithARetry, Kind::PutAfterALoss, Kind::Head, Kind::Delete);
const auto kWithBody = Values(Kind::Put, Kind::PutAfterALoss, Kind::Delete);

const std::string kEnd = "Content-Length: 0\r\n\r\n";
const std::string kWhole = "$head" + kEnd;

const std::vector<Answer> kCut{
    {"IsMissing", "", Ending::Fin, "RECEIVE_FAILED"},
    {"IsMissingForAReset", "", Ending::Reset, "RECEIVE_FAILED"},
    {"EndsInsideItsStatusLine", "HTTP/1.1 2", Ending::Fin, "CUT_SHORT"},
    {"BreaksInsideItsStatusLine", "HTTP/1.1 2", Ending::Reset, "CUT_SHORT"},
    {"EndsAfterItsStatusLine", "HTTP/1.1 $status\r\n", Ending::Fin, "CUT_SHORT"},
    {"BreaksAfterItsStatusLine", "HTTP/1.1 $status\r\n", Ending::Reset, "CUT_SHORT"},
    {"EndsInsideAHeader", "$headX-Head", Ending::Fin, "CUT_SHORT"},
    {"BreaksInsideAHeader", "$headX-Head", Ending::Reset, "CUT_SHORT"},
    {"EndsAfterAHeader", "$head", Ending::Fin, "CUT_SHORT"},
    {"EndsInsideTheBlankLine", "$headContent-Length: 0\r\n\r", Ending::Fin, "CUT_SHORT"},
    {"IsInterimOnly", "HTTP/1.1 100 Continue\r\n\r\n", Ending::Fin, "CUT_SHORT"},
    {"EndsAfterAnInterimOne", "HTTP/1.1 103 Hints\r\n\r\n$head", Ending::Fin, "CUT_SHORT"},
};

const std::vector<Answer> kNoHttp{
    {"HasNoNumber", "HTTP/1.1 \r\n" + kEnd, Ending::Fin, "MALFORMED"},
    {"HasTheNumberZero", "HTTP/1.1 000 Zero\r\n" + kEnd, Ending::Open, "MALFORMED"},
    {"HasALowNumber", "HTTP/1.1 99 Low\r\n" + kEnd, Ending::Open, "MALFORMED"},
    {"HasANumberOfFourDigits", "HTTP/1.1 2000 High\r\n" + kEnd, Ending::Open, "MALFORMED"},
    {"HasANegativeNumber", "HTTP/1.1 -$status\r\n" + kEnd, Ending::Fin, "MALFORMED"},
    {"HasNoSpaceAfterItsNumber", "HTTP/1.1 $codeX\r\n$fields" + kEnd, Ending::Open, "MALFORMED"},
    {"IsGarbage", "garbage\r\n\r\n", Ending::Open, "MALFORMED"},
    {"IsATextAlone", "<html>It works.</html>", Ending::Fin, "MALFORMED"},
    {"BeginsWithAnEmptyLine", "\r\n" + kWhole, Ending::Open, "MALFORMED"},
    {"IsOfAnOlderProtocol", "HTTP/0.9 $status\r\n$fields" + kEnd, Ending::Open, "MALFORMED"},
    {"IsOfANewerProtocol", "HTTP/2 $status\r\n$fields" + kEnd, Ending::Open, "MALFORMED"},
    {"IsOfAnotherProtocol", "RTSP/1.0 $status\r\n$fields" + kEnd, Ending::Open, "MALFORMED"},
    {"IsAFrameOfTheNewerProtocol", "\0\0\0\4\0\0\0\0\0"s, Ending::Open, "MALFORMED"},
    {"BeginsLikeARequest", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", Ending::Open, "MALFORMED"},
    {"IsATlsAlert", "\x15\x03\x03\x00\x02\x02\x28"s, Ending::Fin, "MALFORMED"},
    {"SwitchesProtocols", "HTTP/1.1 101 Switching\r\nUpgrade: h2c\r\n\r\n" + kWhole, Ending::Open,
     "MALFORMED"},
    {"HasAnotherStatusLineInsideItsHeaders",
     "HTTP/1.1 $status\r\n$fieldsHTTP/1.1 500 No\r\n" + kEnd, Ending::Open, "MALFORMED"},
    {"HasAHeaderWithoutAColon", "$headgarbage\r\n" + kEnd, Ending::Open, "MALFORMED"},
    {"HasAHeaderWithAZeroByte", "$headX: \0\r\n"s + kEnd, Ending::Open, "MALFORMED"},
    {"HasAHeaderOfBinaryBytes", "$headX: \x01\x1b[31m\x7F\xFF\r\n" + kEnd, Ending::Open,
     "MALFORMED"},
    {"HasAHeaderWithoutAName", "$head: garbage\r\n" + kEnd, Ending::Open, "MALFORMED"},
    {"HasASpaceBeforeItsColons", "$headX : y\r\n" + kEnd, Ending::Open, "MALFORMED"},
    {"HasABinaryReason", "HTTP/1.1 $status \x1b[31m\r\n$fields" + kEnd, Ending::Open, "MALFORMED"},
    {"EndsItsLinesInOneByte", "HTTP/1.1 $status\nLocation: /again\nContent-Length: 0\n\n",
     Ending::Open, "MALFORMED"},
    {"UsesAnUnknownTransferEncoding", "$headTransfer-Encoding: rot\r\n\r\nab", Ending::Open,
     "MALFORMED"},
    {"IsCompressedOnTheWayAndIsNot", "$headTransfer-Encoding: gzip\r\n\r\nab", Ending::Fin,
     "MALFORMED"},
    {"IsCompressedAndInChunks", "$headTransfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n",
     Ending::Open, "MALFORMED"},
    {"IsInChunksTwice",
     "$headTransfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", Ending::Open,
     "MALFORMED"},
    {"IsOfTheOlderProtocolAndInChunks",
     "HTTP/1.0 $status\r\n$fieldsTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", Ending::Open,
     "MALFORMED"},
    {"HasALengthAndChunks",
     "$headContent-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n0\r\n\r\n",
     Ending::Open, "MALFORMED"},
    {"HasChunksAndALength",
     "$headTransfer-Encoding: chunked\r\nContent-Length: 2\r\n\r\n2\r\nab\r\n0\r\n\r\n",
     Ending::Open, "MALFORMED"},
};

const std::vector<Answer> kTooMuch{
    {"HasAStatusLineWithoutEnd", "HTTP/1.1 $status...x", Ending::Open, "TOO_LARGE"},
    {"HasAHeaderWithoutEnd", "$headX: ...x", Ending::Open, "TOO_LARGE"},
    {"HasANameWithoutEnd", "$head...x", Ending::Open, "TOO_LARGE"},
    {"HasHeadersWithoutEnd", "$head...X: y\r\n", Ending::Open, "TOO_LARGE"},
    {"HasFoldedLinesWithoutEnd", "$headX: y\r\n... z\r\n", Ending::Open, "TOO_LARGE"},
    {"AnnouncesMoreThanANumberCanBe", "$headContent-Length: 99999999999999999999\r\n\r\n",
     Ending::Open, "TOO_LARGE"},
    {"IsInterimForever", "...HTTP/1.1 102 Processing\r\n\r\n", Ending::Open, "TOO_LARGE"},
};

Answer withLength(const std::string& name, const std::string& length) {
    return {name, "$headContent-Length:" + length + "\r\n\r\nabcd", Ending::Fin, "MALFORMED"};
}

const std::vector<Answer> kLength{
    withLength("HasNoLength", ""),
    withLength("HasABlankLength", " \t"),
    withLength("HasALengthInLetters", " abc"),
    withLength("HasAHexadecimalLength", " 0x2"),
    withLength("HasALengthWithAPlus", " +2"),
    withLength("HasANegativeLength", " -1"),
    withLength("HasALengthWithAPoint", " 2.0"),
    withLength("HasALengthWithAnExponent", " 2e0"),
    withLength("HasALengthInQuotes", " \"2\""),
    withLength("HasALengthWithAUnit", " 2 B"),
    withLength("HasTwoLengthsInOneHeader", " 2, 2"),
    withLength("HasTwoNumbersForALength", " 2 2"),
    withLength("HasAListForALength", " 2,3"),
    withLength("HasAFoldedLength", "\r\n 2"),
    withLength("HasALengthThatContinuesInAFoldedLine", " 2\r\n 2"),
    withLength("HasTwoLengths", " 2\r\nContent-Length: 3"),
    withLength("HasTwoSpellingsOfALength", " 2\r\nContent-Length: 02"),
    withLength("HasALengthAndNone", " 2\r\nContent-Length:"),
};

// Faults that a check does not see, because the answer to a HEAD ends with its headers.
const std::vector<Answer> kBody{
    {"HasNoBody", "$headContent-Length: 5\r\n\r\n", Ending::Fin, "CUT_SHORT"},
    {"EndsInsideItsBody", "$headContent-Length: 5\r\n\r\nfour", Ending::Fin, "CUT_SHORT"},
    {"BreaksInsideItsBody", "$headContent-Length: 5\r\n\r\nfour", Ending::Reset, "CUT_SHORT"},
    {"AnnouncesTooMuch", "$headContent-Length: 9999999999\r\n\r\n", Ending::Open, "TOO_LARGE"},
    {"HasABodyWithoutEnd", "$head\r\n...x", Ending::Open, "TOO_LARGE"},
    {"HasChunksWithoutEnd", "$headTransfer-Encoding: chunked\r\n\r\n...2\r\nab\r\n", Ending::Open,
     "TOO_LARGE"},
    {"HasTrailersWithoutEnd", "$headTransfer-Encoding: chunked\r\n\r\n0\r\n...X: y\r\n",
     Ending::Open, "TOO_LARGE"},
    {"HasAChunkThatIsNone", "$headTransfer-Encoding: chunked\r\n\r\nZZ\r\n", Ending::Open,
     "MALFORMED"},
    {"HasAChunkLongerThanItSays", "$headTransfer-Encoding: chunked\r\n\r\n2\r\nabcd\r\n",
     Ending::Open, "MALFORMED"},
    {"HasAChunkOfMoreThanANumberCanBe",
     "$headTransfer-Encoding: chunked\r\n\r\nFFFFFFFFFFFFFFFFF\r\nab\r\n", Ending::Open,
     "MALFORMED"},
    {"HasAChunkSizeWithoutEnd", "$headTransfer-Encoding: chunked\r\n\r\n2;...x", Ending::Open,
     "TOO_LARGE"},
    {"EndsItsChunksInOneByte", "$headTransfer-Encoding: chunked\r\n\r\n2\nab\n0\n\n", Ending::Open,
     "MALFORMED"},
    {"HasALengthInItsTrailers",
     "$headTransfer-Encoding: chunked\r\n\r\n0\r\nContent-Length: x\r\n\r\n", Ending::Open,
     "MALFORMED"},
    {"EndsInsideAChunk", "$headTransfer-Encoding: chunked\r\n\r\n5\r\nab", Ending::Fin,
     "CUT_SHORT"},
    {"EndsBetweenItsChunks", "$headTransfer-Encoding: chunked\r\n\r\n2\r\nab\r\n", Ending::Fin,
     "CUT_SHORT"},
    {"EndsInsideItsTrailers", "$headTransfer-Encoding: chunked\r\n\r\n0\r\nX: y", Ending::Fin,
     "CUT_SHORT"},
};

const std::vector<Answer> kOdd{
    {"HasNoReason", "HTTP/1.1 $code\r\n$fields" + kEnd},
    {"IsOfTheOlderProtocol", "HTTP/1.0 $status\r\n$fields\r\n", Ending::Fin},
    {"IsInLowerCase", "HTTP/1.1 $status\r\nlocation: /again\r\ncontent-length: 0\r\n\r\n"},
    {"IsInUpperCase", "HTTP/1.1 $status\r\nLOCATION: /again\r\nCONTENT-LENGTH: 0\r\n\r\n"},
    {"HasNoSpaceAfterItsColons", "HTTP/1.1 $status\r\nLocation:/again\r\nContent-Length:0\r\n\r\n"},
    {"HasAFoldedHeader", "$headX: y\r\n\t z\r\n" + kEnd},
    {"HasAFoldedLocation", "HTTP/1.1 $status\r\nLocation:\r\n /again\r\n" + kEnd},
    {"HasSeveralLocations", "HTTP/1.1 $status\r\nLocation: /again\r\nLocation: /other\r\n" + kEnd},
    {"HasALengthTwice", "$headContent-Length: 0\r\n" + kEnd},
    {"HasABigHeader", "$headX: " + std::string(60 << 10, 'x') + "\r\n" + kEnd},
    {"SetsACookie", "$headSet-Cookie: a=b\r\n" + kEnd},
    {"FollowsAnInterimOne", "HTTP/1.1 100 Continue\r\n\r\n" + kWhole},
    {"FollowsManyInterimOnes",
     "HTTP/1.1 102 A\r\n\r\nHTTP/1.1 103 B\r\nLocation: /early\r\n\r\n" + kWhole},
    {"EndsWithTheConnection", "$headConnection: close\r\n\r\nbody", Ending::Fin},
    {"SaysThatItClosesAndDoesNot", "$headConnection: close\r\n" + kEnd},
    {"SaysThatItKeepsTheConnectionAndDoesNot", "$headConnection: keep-alive\r\n" + kEnd,
     Ending::Fin},
    {"OffersAnotherProtocol", "$headUpgrade: h2c\r\nAlt-Svc: h2=\":1\"\r\n" + kEnd},
    {"WantsEverythingElsewhere", "$headStrict-Transport-Security: max-age=9\r\n" + kEnd},
    {"IsFollowedByAnother", kWhole + "HTTP/1.1 500 No\r\n" + kEnd},
    {"IsFollowedByItself", kWhole + kWhole},
    {"IsFollowedByGarbage", kWhole + "garbage"},
    {"IsFollowedByHalfAnAnswer", kWhole + "HTTP/1.1 500"},
};

const std::vector<Answer> kOddBody{
    {"HasABody", "$headContent-Length: 4\r\n\r\nbody"},
    {"HasABinaryBody", "$headContent-Length: 3\r\n\r\n\0\xFF\x1b"s},
    {"ComesInChunks", "$headTransfer-Encoding: chunked\r\n\r\n2;x=y\r\nab\r\n0\r\n\r\n"},
    {"HasTrailers", "$headTransfer-Encoding: chunked\r\n\r\n0\r\nX: y\r\n\r\n"},
    {"SaysThatItIsCompressed", "$headContent-Encoding: gzip\r\nContent-Length: 2\r\n\r\nab"},
};

class ABadAnswer : public KindTest, public ::testing::WithParamInterface<Case> {};

TEST_P(ABadAnswer, IsOneFailureAndNothingMore) {
    const auto& [kind, answer] = GetParam();
    expectFailure(kind, scriptOf(answer, kind), answer.why);
}

INSTANTIATE_TEST_SUITE_P(Cut, ABadAnswer, Combine(kAll, ValuesIn(kCut)), nameOfCase);
INSTANTIATE_TEST_SUITE_P(NoHttp, ABadAnswer, Combine(kAll, ValuesIn(kNoHttp)), nameOfCase);
INSTANTIATE_TEST_SUITE_P(TooMuch, ABadAnswer, Combine(kAll, ValuesIn(kTooMuch)), nameOfCase);
INSTANTIATE_TEST_SUITE_P(Length, ABadAnswer,
                         Combine(Values(Kind::Put, Kind::Head, Kind::Delete), ValuesIn(kLength)),
                         nameOfCase);
INSTANTIATE_TEST_SUITE_P(Body, ABadAnswer, Combine(kWithBody, ValuesIn(kBody)), nameOfCase);

class AnOddAnswer : public KindTest, public ::testing::WithParamInterface<Case> {};

TEST_P(AnOddAnswer, HasItsNormalEffect) {
    const auto& [kind, answer] = GetParam();
    expectSuccess(kind, scriptOf(answer, kind));
}

INSTANTIATE_TEST_SUITE_P(Odd, AnOddAnswer,
                         Combine(Values(Kind::Put, Kind::PutAfterALoss, Kind::Head, Kind::Delete),
                                 ValuesIn(kOdd)),
                         nameOfCase);
INSTANTIATE_TEST_SUITE_P(OddBody, AnOddAnswer,
                         Combine(Values(Kind::Put, Kind::Head, Kind::Delete), ValuesIn(kOddBody)),
                         nameOfCase);
INSTANTIATE_TEST_SUITE_P(UnseenBody, AnOddAnswer, Combine(Values(Kind::Head), ValuesIn(kBody)),
                         nameOfCase);

}  // namespace
}  // namespace orvx::serviceregistryclient
