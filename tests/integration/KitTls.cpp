// Secure endpoints of the kit, and the certificates of `run`.

#include "support/Certificates.h"
#include "support/RawClient.h"
#include "support/Waiting.h"

#include <support/TemporaryDirectory.h>

#include <Wendrel/TlsConnection.h>
#include <Wendrel/kit/Server.h>

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>

namespace integration
{
namespace
{

class KitTls : public ::testing::Test
{
protected:
    KitTls()
    {
        write("old");
        qv::http::TlsOptions tls;
        tls.certificates.push_back({mDirectory / "chain.pem", mDirectory / "key.pem", "", ""});
        mServer.options().listen = {"127.0.0.1:0"};
        mServer.options().tls.push_back(tls);
        mServer.router().get("/", [](qv::kit::Request& request) {
            request.reply(200, request.isSecure() ? request.tls()->version : "plain");
        });
    }

    void write(const char* name) const
    {
        const TestCertificate made = makeCertificate({name, {}});
        std::ofstream(mDirectory / "chain.pem") << made.certificate;
        std::ofstream(mDirectory / "key.pem") << made.key;
    }

    uint16_t port() const
    {
        const std::string endpoint = mServer.endpoints().front();
        return static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
    }

    // Common name of the certificate that a new client gets.
    std::string servedName() const
    {
        RawClient client(port(), [](SSL_CTX*, SSL*) {});
        X509* const certificate = SSL_get0_peer_certificate(client.session());
        char name[64] = "";
        if (certificate)
            X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name,
                                      sizeof name);
        return name;
    }

    const qv::tests::TemporaryDirectory mDirectory;
    qv::kit::Server mServer;
};

TEST_F(KitTls, ServesAndTellsItsUrls)
{
    ASSERT_TRUE(mServer.start()) << mServer.failureReason();
    EXPECT_EQ(mServer.urls().front(), "https://127.0.0.1:" + std::to_string(port()) + "/");
    RawClient client(port(), [](SSL_CTX*, SSL*) {});
    client.send(getRequest("/"));
    const auto response = client.receive();
    ASSERT_TRUE(response);
    EXPECT_EQ(response->body, "TLSv1.3");
    EXPECT_TRUE(mServer.stop(std::chrono::seconds(5)));
}

// A pair of files that does not match is not used; the next change is.
TEST_F(KitTls, ReloadsCertificatesOfARun)
{
    int status = -1;
    std::thread running([&] { status = mServer.run(); });
    ASSERT_TRUE(waitUntil([this] { return mServer.isRunning(); }));
    EXPECT_EQ(servedName(), "old");
    write("changed");
    EXPECT_TRUE(waitUntil([this] { return servedName() == "changed"; }));
    std::ofstream(mDirectory / "key.pem") << "no key";
    ::kill(::getpid(), SIGHUP);
    EXPECT_EQ(servedName(), "changed");
    write("signalled");
    ::kill(::getpid(), SIGHUP);
    EXPECT_TRUE(waitUntil([this] { return servedName() == "signalled"; }));
    ::kill(::getpid(), SIGTERM);
    running.join();
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace integration
