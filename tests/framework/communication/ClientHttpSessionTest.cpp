// The default behaviour of the session interface, with any implementation.

#include <gtest/gtest.h>
#include <orvx/communication/IClientHttpSession.h>

namespace orvx::communication {
namespace {

/// Stores the last PUT, and answers it during the call.
class RecordingSession : public IClientHttpSession {
  public:
    void sendPutRequest(std::string path, std::string contentType, std::string accept,
                        const char* content, std::uint64_t length,
                        ResponseHandler handler) override {
        path_ = std::move(path);
        contentType_ = std::move(contentType);
        accept_ = std::move(accept);
        content_ = content;
        length_ = length;
        handler(HttpResponse(CommunicationStatus::NoSession));
    }
    void sendHeadRequest(std::string, ResponseHandler) override {}
    void sendDeleteRequest(std::string, std::string, ResponseHandler) override {}
    void abandon() override {}

    std::string path_;
    std::string contentType_;
    std::string accept_;
    const char* content_ = nullptr;
    std::uint64_t length_ = 0;
};

TEST(TheClientHttpSession, PutsJsonAsAPutOfThatTypeWithoutCopyingTheContent) {
    RecordingSession session;
    const char content[] = "{\"a\":1} and more";
    CommunicationStatus outcome = CommunicationStatus::Ok;
    session.sendPutRequestJson("/echo", content, 7, [&outcome](const HttpResponse& response) {
        outcome = response.getCommunicationStatus();
    });
    EXPECT_EQ(session.path_, "/echo");
    EXPECT_EQ(session.contentType_, "application/json");
    EXPECT_EQ(session.accept_, "application/json");
    EXPECT_EQ(session.content_, content);
    EXPECT_EQ(session.length_, 7U);
    EXPECT_EQ(outcome, CommunicationStatus::NoSession);
}

}  // namespace
}  // namespace orvx::communication
