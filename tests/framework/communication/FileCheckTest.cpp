// The check of the TLS files before the first connection needs them.

#include "Folder.h"
#include "HttpTest.h"

#include <orvx/utility/OrvFoundationException.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

namespace orvx::testing {
namespace {

using communication::TlsConfig;

class TheFilesOfTls : public HttpTest {
  protected:
    TheFilesOfTls() { tls.enabled = true; }

    std::string certificate() const {
        return folder.write("certificate.pem", begin("CERTIFICATE"));
    }
    static std::string begin(const std::string& what) { return "-----BEGIN " + what + "-----\n"; }
    std::string refusal() const {
        OrvClientCommunicationContext context;
        HttpConfig config;
        config.tls = tls;
        context.setHttpConfig(config);
        try {
            context.init();
        } catch (const utility::OrvFoundationException& exception) {
            return exception.what();
        }
        return "";
    }

    const Folder folder;
    TlsConfig tls;
};

TEST_F(TheFilesOfTls, AreFineWhenTheyHoldWhatTheyShould) {
    tls.authorityFile = certificate();
    tls.authorityFolder = folder.path();
    tls.clientCertificateFile = certificate();
    for (const char* const key : {"PRIVATE KEY", "EC PRIVATE KEY", "RSA PRIVATE KEY"}) {
        tls.clientKeyFile = folder.write("key.pem", begin(key));
        EXPECT_EQ(refusal(), "");
    }
}

TEST_F(TheFilesOfTls, MustBeThere) {
    const std::string missing = folder.file("missing");
    const std::string rest = ": " + missing + " cannot be read: No such file or directory.";
    tls.authorityFile = missing;
    EXPECT_EQ(refusal(), "HttpConfig::tls.authorityFile" + rest);
    tls.authorityFile.clear();
    tls.authorityFolder = missing;
    EXPECT_EQ(refusal(), "HttpConfig::tls.authorityFolder" + rest);
    tls.authorityFolder.clear();
    tls.clientCertificateFile = missing;
    EXPECT_EQ(refusal(), "HttpConfig::tls.clientCertificateFile" + rest);
    tls.clientCertificateFile = certificate();
    tls.clientKeyFile = missing;
    EXPECT_EQ(refusal(), "HttpConfig::tls.clientKeyFile" + rest);
}

TEST_F(TheFilesOfTls, AreFilesAndFolders) {
    tls.authorityFile = folder.path();
    EXPECT_EQ(refusal(), "HttpConfig::tls.authorityFile: " + folder.path() + " is no file.");
    tls.authorityFile.clear();
    tls.authorityFolder = certificate();
    EXPECT_EQ(refusal(), "HttpConfig::tls.authorityFolder: " + certificate() +
                             " cannot be read: Not a directory.");
}

TEST_F(TheFilesOfTls, AreNoPipesThatAreWaitedFor) {
    tls.authorityFile = folder.file("pipe");
    ASSERT_EQ(::mkfifo(tls.authorityFile.c_str(), S_IRUSR | S_IWUSR), 0);
    EXPECT_EQ(refusal(), "HttpConfig::tls.authorityFile: " + tls.authorityFile + " is no file.");
}

TEST_F(TheFilesOfTls, HoldWhatTheirNamesSay) {
    const std::string empty = folder.write("empty.pem", "");
    tls.authorityFile = empty;
    EXPECT_EQ(refusal(),
              "HttpConfig::tls.authorityFile: " + empty + " contains no certificate in PEM.");
    tls.authorityFile.clear();
    const std::string key = folder.write("key.pem", begin("PRIVATE KEY"));
    tls.clientCertificateFile = key;
    EXPECT_EQ(refusal(),
              "HttpConfig::tls.clientCertificateFile: " + key + " contains no certificate in PEM.");
    tls.clientCertificateFile = certificate();
    tls.clientKeyFile = certificate();
    EXPECT_EQ(refusal(), "HttpConfig::tls.clientKeyFile: " + certificate() +
                             " contains no private key in PEM.");
}

TEST_F(TheFilesOfTls, MayHoldTheCertificateAndItsKeyTogetherAndNeedTheKey) {
    tls.clientCertificateFile = certificate();
    EXPECT_EQ(refusal(), "HttpConfig::tls.clientCertificateFile: " + certificate() +
                             " contains no private key in PEM.");
    tls.clientCertificateFile =
        folder.write("both.pem", begin("CERTIFICATE") + begin("PRIVATE KEY"));
    EXPECT_EQ(refusal(), "");
}

TEST_F(TheFilesOfTls, HoldNoKeyThatNeedsAPassword) {
    tls.clientCertificateFile = certificate();
    for (const std::string& content :
         {begin("ENCRYPTED PRIVATE KEY"), begin("RSA PRIVATE KEY") + "Proc-Type: 4,ENCRYPTED\n"}) {
        tls.clientKeyFile = folder.write("key.pem", content);
        EXPECT_EQ(refusal(), "HttpConfig::tls.clientKeyFile: " + tls.clientKeyFile +
                                 " contains an encrypted key, which nobody is asked to open.");
    }
}

TEST_F(TheFilesOfTls, AreNotLookedAtForASession) {
    HttpConfig config;
    config.tls = tls;
    config.tls.authorityFile = folder.file("replaced-at-this-moment");
    EXPECT_NO_THROW(session(config));
}

}  // namespace
}  // namespace orvx::testing
