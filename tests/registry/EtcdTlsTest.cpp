// Tests the etcd client over TLS: which members it trusts, and which certificate it presents.
// The client runs on its own thread, the test on the main one; they share futures and a queue,
// which has a lock of its own.

#include <gmock/gmock.h>

#include <boost/asio/io_context.hpp>
#include <memory>
#include <string>

#include "EtcdClient.h"
#include "EtcdProcess.h"
#include "FileContent.h"
#include "RunningEtcdClient.h"
#include "TemporaryFolder.h"
#include "TlsConnection.h"

namespace orvx::registry {
namespace {

namespace asio = boost::asio;
using ::testing::HasSubstr;
using Result = EtcdClient::Result;

class AnEtcdClientOverTls : public ::testing::Test {
  protected:
    AnEtcdClientOverTls() {
        certificates_.make("etcd");
        certificates_.make("registry");
        options_.tls = {certificates_.file("registry.pem"), certificates_.file("registry.key"),
                        certificates_.file("ca.pem")};
    }

    void start() {
        etcd_ = std::make_unique<EtcdProcess>(&certificates_);
        options_.members = {etcd_->url()};
    }
    Result put() { return RunningEtcdClient(options_).put("a", "1"); }

    const TemporaryFolder folder_;
    const Certificates certificates_{folder_ / ""};
    EtcdOptions options_ = optionsOf({});
    std::unique_ptr<EtcdProcess> etcd_;
};

TEST_F(AnEtcdClientOverTls, CallsAndWatches) {
    start();
    RunningEtcdClient client(options_);
    Texts texts;
    client.watch({{"key", encode64("a")}}, texts);
    EXPECT_THAT(texts.next(), HasSubstr("created"));
    for (int i = 0; i < 20; ++i) {
        const Result put = client.put("a", "1");
        EXPECT_TRUE(put.answer) << put.error;
        EXPECT_FALSE(put.isUncertain);
        EXPECT_THAT(texts.next(), HasSubstr("\"events\""));
    }
}

TEST_F(AnEtcdClientOverTls, PresentsItsCertificate) {
    start();
    ASSERT_TRUE(put().answer);
    options_.tls.certificate.clear();
    EXPECT_FALSE(put().answer);
}

TEST_F(AnEtcdClientOverTls, TrustsOnlyItsAuthority) {
    start();
    const TemporaryFolder elsewhere;
    options_.tls.authority = Certificates(elsewhere / "").file("ca.pem");
    const Result untrusted = put();
    EXPECT_THAT(untrusted.error, HasSubstr("certificate verify failed"));
    EXPECT_FALSE(untrusted.isUncertain);
    options_.tls.authority.clear();  // uses the system's authorities
    EXPECT_THAT(put().error, HasSubstr("certificate verify failed"));
}

TEST_F(AnEtcdClientOverTls, RefusesACertificateForAnotherName) {
    start();
    options_.members = {"https://localhost" + etcd_->url().substr(etcd_->url().rfind(':'))};
    EXPECT_THAT(put().error, HasSubstr("certificate verify failed"));
}

TEST_F(AnEtcdClientOverTls, RefusesFilesThatAreNone) {
    options_.members = {"https://127.0.0.1:1"};
    asio::io_context context;
    for (std::string TlsFiles::*file :
         {&TlsFiles::certificate, &TlsFiles::key, &TlsFiles::authority}) {
        EtcdOptions options = options_;
        options.tls.*file = folder_ / "none";
        EXPECT_THROW(EtcdClient(context, options), FileError);
    }
}

}  // namespace
}  // namespace orvx::registry
