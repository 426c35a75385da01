// Certificates of secure endpoints: choice, resumption, clients with their own, reload, errors.

#include "support/Certificates.h"
#include "support/EventRun.h"
#include "support/ProcessLog.h"
#include "support/RawClient.h"
#include "support/TestMode.h"
#include "support/Waiting.h"

#include <support/TemporaryDirectory.h>

#include <Wendrel/TlsConnection.h>

#include <gmock/gmock.h>

#include <openssl/ocsp.h>
#include <openssl/pem.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

using integration::CertificateWish;
using integration::encryptKey;
using integration::EventRequest;
using integration::EventRun;
using integration::getRequest;
using integration::localhostCertificate;
using integration::localhostTls;
using integration::makeCertificate;
using integration::onOneThread;
using integration::RawClient;
using integration::RawResponse;
using integration::TestCertificate;
using qv::http::ClientCertificates;
using qv::http::ServerOptions;
using qv::http::TlsOptions;
using qv::http::TlsVersion;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Optional;
using ::testing::SizeIs;

ServerOptions with(const TlsOptions& tls)
{
    ServerOptions options = onOneThread();
    options.tls.push_back(tls);
    return options;
}

// The client, and whether its session was resumed.
void respondWithClient(EventRequest& request)
{
    const qv::TlsConnection& tls = *request.getTls();
    request.respondHere(200, tls.clientSubject + '|' + tls.clientFingerprint + '|' +
                                 (tls.isResumed ? "resumed" : "full"));
}

std::string ask(RawClient& client)
{
    client.send(getRequest("/"));
    const auto response = client.receive();
    return response ? response->body : "no response";
}

// Common name of the server's certificate.
std::string nameOf(const RawClient& client)
{
    X509* const certificate =
        client.session() ? SSL_get0_peer_certificate(client.session()) : nullptr;
    if (!certificate)
        return "none";
    char name[256] = "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, name,
                              sizeof name);
    return name;
}

TEST(Certificates, AreChosenByTheNameOfTheHost)
{
    TlsOptions tls;
    for (const CertificateWish& wish :
         {CertificateWish{"first", {"a.test", "b.test"}}, CertificateWish{"second", {"*.c.test"}},
          CertificateWish{"third", {"a.test", "d.test"}, -3600, 86400, false, true}}) {
        const TestCertificate made = makeCertificate(wish);
        tls.certificates.push_back({made.certificate, made.key, "", ""});
    }
    EventRun run(&respondWithClient, with(tls));
    const struct
    {
        const char* host;
        const char* name;
    } rows[] = {{nullptr, "first"},      {"b.test", "first"}, {"x.c.test", "second"},
                {"x.y.c.test", "first"}, {"d.test", "third"}, {"other.test", "first"},
                {"a.test", "first"},     {"D.TEST", "third"}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.host ? row.host : "no host");
        RawClient client(run.port(), [&](SSL_CTX*, SSL* session) {
            if (row.host)
                SSL_set_tlsext_host_name(session, row.host);
        });
        EXPECT_EQ(nameOf(client), row.name);
        EXPECT_EQ(ask(client), "||full");
    }
}

TEST(Protocol, IsHttp11OrNone)
{
    EventRun run(&respondWithClient, with(localhostTls()));
    const struct
    {
        std::string offered;
        bool isSecure;
        std::string chosen;
    } rows[] = {{"", true, ""},
                {"\x02h2\x08http/1.1", true, "http/1.1"},
                {"\x08http/1.0", true, "http/1.0"},
                {"\x08http/1.0\x08http/1.1", true, "http/1.1"},
                {"\x02h2", false, ""}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.offered);
        RawClient client(run.port(), [&](SSL_CTX*, SSL* session) {
            SSL_set_alpn_protos(session, reinterpret_cast<const unsigned char*>(row.offered.data()),
                                static_cast<unsigned int>(row.offered.size()));
        });
        EXPECT_EQ(client.isSecure(), row.isSecure);
        const unsigned char* chosen = nullptr;
        unsigned int bytes = 0;
        SSL_get0_alpn_selected(client.session(), &chosen, &bytes);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(chosen), bytes), row.chosen);
    }
}

TEST(Versions, AreServedFromTheOldestAllowed)
{
    for (const TlsVersion oldest : {TlsVersion::Tls12, TlsVersion::Tls13}) {
        TlsOptions tls = localhostTls();
        tls.minimumVersion = oldest;
        EventRun run(&respondWithClient, with(tls));
        for (const int version : {TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
            SCOPED_TRACE(version);
            RawClient client(run.port(), [&](SSL_CTX*, SSL* session) {
                SSL_set_security_level(session, 0);
                SSL_set_min_proto_version(session, version);
                SSL_set_max_proto_version(session, version);
            });
            EXPECT_EQ(client.isSecure(), version >= static_cast<int>(oldest));
        }
    }
}

TEST(Suites, AreThoseWithForwardSecrecyAndAuthenticatedEncryption)
{
    EventRun run(&respondWithClient, with(localhostTls()));
    for (const auto& [suites, isServed] :
         std::vector<std::pair<const char*, bool>>{{"ECDHE-ECDSA-AES128-SHA256", false},
                                                   {"ECDHE-ECDSA-AES256-SHA", false},
                                                   {"AES128-GCM-SHA256", false},
                                                   {"ECDHE-ECDSA-CHACHA20-POLY1305", true},
                                                   {"ECDHE-ECDSA-AES256-GCM-SHA384", true}}) {
        SCOPED_TRACE(suites);
        RawClient client(run.port(), [suites = suites](SSL_CTX*, SSL* session) {
            SSL_set_max_proto_version(session, TLS1_2_VERSION);
            SSL_set_security_level(session, 0);
            SSL_set_cipher_list(session, suites);
        });
        EXPECT_EQ(client.isSecure(), isServed);
    }
}

class Tickets : public testing::TestWithParam<int>
{
protected:
    // The session of a first connection; null when it cannot be resumed.
    static std::unique_ptr<SSL_SESSION, decltype(&SSL_SESSION_free)> sessionOf(uint16_t port)
    {
        RawClient client(port, limitVersion);
        EXPECT_THAT(ask(client), HasSubstr("full"));
        SSL_SESSION* const session = SSL_get1_session(client.session());
        const bool isUsable = session && SSL_SESSION_is_resumable(session) == 1;
        std::unique_ptr<SSL_SESSION, decltype(&SSL_SESSION_free)> held(session, &SSL_SESSION_free);
        if (!isUsable)
            held.reset();
        return held;
    }

    static std::string resume(uint16_t port, SSL_SESSION* session)
    {
        RawClient client(port, [&](SSL_CTX* context, SSL* made) {
            limitVersion(context, made);
            SSL_set_session(made, session);
        });
        return ask(client);
    }

    static void limitVersion(SSL_CTX*, SSL* session)
    {
        SSL_set_max_proto_version(session, GetParam());
    }
};

TEST_P(Tickets, ResumeASessionAlsoAfterAReload)
{
    EventRun run(&respondWithClient, with(localhostTls()));
    const auto session = sessionOf(run.port());
    ASSERT_TRUE(session);
    EXPECT_THAT(resume(run.port(), session.get()), HasSubstr("resumed"));
    ASSERT_TRUE(run.server().reloadCertificates());
    EXPECT_THAT(resume(run.port(), session.get()), HasSubstr("resumed"));
    // Of another process, or of another run.
    EventRun other(&respondWithClient, with(localhostTls()));
    EXPECT_THAT(resume(other.port(), session.get()), HasSubstr("full"));
}

TEST_P(Tickets, AreNotGivenWhenTheyAreOff)
{
    TlsOptions tls = localhostTls();
    tls.sessionTickets = false;
    EventRun run(&respondWithClient, with(tls));
    const auto session = sessionOf(run.port());
    if (session) {
        EXPECT_THAT(resume(run.port(), session.get()), HasSubstr("full"));
    }
}

INSTANTIATE_TEST_SUITE_P(Of, Tickets, testing::Values(TLS1_2_VERSION, TLS1_3_VERSION));

class Clients : public testing::Test
{
protected:
    Clients()
        : mAuthority(makeCertificate({"authority", {}, -3600, 86400, true})),
          mSigned(signedBy(mAuthority))
    {}

    static TestCertificate signedBy(const TestCertificate& authority)
    {
        CertificateWish wish;
        wish.subject = "probe";
        wish.issuer = &authority;
        return makeCertificate(wish);
    }

    TlsOptions wanting(ClientCertificates wanted) const
    {
        TlsOptions tls = localhostTls();
        tls.clientCertificates = wanted;
        tls.clientAuthorities = mAuthority.certificate;
        return tls;
    }

    // The response; "refused" without one.
    static std::string askAs(uint16_t port, const TestCertificate* certificate)
    {
        RawClient client(port, [&](SSL_CTX*, SSL* session) {
            if (!certificate)
                return;
            BIO* const bio = BIO_new_mem_buf(certificate->certificate.data(), -1);
            X509* const read = PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
            BIO_free(bio);
            BIO* const keyBio = BIO_new_mem_buf(certificate->key.data(), -1);
            EVP_PKEY* const key = PEM_read_bio_PrivateKey(keyBio, nullptr, nullptr, nullptr);
            BIO_free(keyBio);
            SSL_use_certificate(session, read);
            SSL_use_PrivateKey(session, key);
            X509_free(read);
            EVP_PKEY_free(key);
        });
        // With version 1.3 the client learns of a refusal with its first read.
        const std::string response = ask(client);
        return response == "no response" ? "refused" : response;
    }

    const TestCertificate mAuthority;
    const TestCertificate mSigned;
};

TEST_F(Clients, AreNotAskedUnlessWanted)
{
    EventRun run(&respondWithClient, with(localhostTls()));
    EXPECT_EQ(askAs(run.port(), &mSigned), "||full");
}

TEST_F(Clients, AreServedWithoutACertificateThatIsOnlyRequested)
{
    EventRun run(&respondWithClient, with(wanting(ClientCertificates::Requested)));
    EXPECT_EQ(askAs(run.port(), nullptr), "||full");
    EXPECT_THAT(askAs(run.port(), &mSigned), MatchesRegex("CN=probe\\|[0-9a-f]{64}\\|full"));
    EXPECT_EQ(askAs(run.port(), &localhostCertificate()), "refused");
}

TEST_F(Clients, AreRefusedWithoutACertificateThatIsRequired)
{
    EventRun run(&respondWithClient, with(wanting(ClientCertificates::Required)));
    EXPECT_EQ(askAs(run.port(), nullptr), "refused");
    EXPECT_EQ(askAs(run.port(), &localhostCertificate()), "refused");
    EXPECT_THAT(askAs(run.port(), &mSigned), MatchesRegex("CN=probe\\|[0-9a-f]{64}\\|full"));
}

// The session of one endpoint, at another one of the same server.
TEST_F(Clients, AreNotCheckedByAnotherEndpointInPlaceOfTheirOwn)
{
    const TestCertificate other = makeCertificate({"other", {}, -3600, 86400, true});
    TlsOptions open = localhostTls();
    TlsOptions required = wanting(ClientCertificates::Required);
    TlsOptions ofOthers = required;
    ofOthers.clientAuthorities = other.certificate;
    ServerOptions options = onOneThread();
    options.listen = {"127.0.0.1:0", "127.0.0.2:0", "127.0.0.3:0"};
    open.endpoints = {"127.0.0.1:0"};
    required.endpoints = {"127.0.0.2:0"};
    ofOthers.endpoints = {"127.0.0.3:0"};
    options.tls = {open, required, ofOthers};
    EventRun run(&respondWithClient, options);
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        SSL_SESSION* session = nullptr;
        const auto connect = [&](const char* host, size_t endpoint) {
            const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(run.portOf(endpoint));
            EXPECT_EQ(::inet_pton(AF_INET, host, &address.sin_addr), 1);
            EXPECT_EQ(::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address),
                      0);
            integration::TlsEnd end(descriptor, [&](SSL_CTX*, SSL* made) {
                SSL_set_max_proto_version(made, version);
                if (session)
                    SSL_set_session(made, session);
            });
            const std::string request = getRequest("/");
            std::string response;
            char bytes[4096];
            if (end.isOpen() && end.send(request.data(), request.size()) > 0) {
                const ssize_t count = end.receive(bytes, sizeof bytes);
                response.assign(bytes, count > 0 ? static_cast<size_t>(count) : 0);
            }
            if (!session && !response.empty())
                session = SSL_get1_session(end.session());
            end.finishSending();  // OpenSSL resumes no session that was cut off
            ::close(descriptor);
            return response;
        };
        EXPECT_THAT(connect("127.0.0.1", 0), HasSubstr("full"));
        ASSERT_TRUE(session);
        EXPECT_THAT(connect("127.0.0.1", 0), HasSubstr("resumed"));
        EXPECT_EQ(connect("127.0.0.2", 1), "");
        EXPECT_EQ(connect("127.0.0.3", 2), "");
        SSL_SESSION_free(session);
    }
}

class CertificateFiles : public testing::Test
{
protected:
    std::string write(const std::string& name, const std::string& text) const
    {
        const std::string path = mDirectory / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    TlsOptions filesOf(const TestCertificate& certificate) const
    {
        TlsOptions tls;
        tls.certificates.push_back({write("chain.pem", certificate.certificate),
                                    write("key.pem", certificate.key), "", ""});
        return tls;
    }

    static std::string failureOf(const TlsOptions& tls)
    {
        try {
            const EventRun run(&respondWithClient, with(tls));
            return "it has started";
        } catch (const std::runtime_error& error) {
            return error.what();
        }
    }

    const qv::tests::TemporaryDirectory mDirectory;
};

TEST_F(CertificateFiles, AreReadAgainByAReload)
{
    EventRun run(&respondWithClient, with(filesOf(makeCertificate({"old", {}}))));
    RawClient before(run.port(), [](SSL_CTX*, SSL*) {});
    EXPECT_EQ(nameOf(before), "old");
    filesOf(makeCertificate({"new", {}}));
    RawClient unchanged(run.port(), [](SSL_CTX*, SSL*) {});
    EXPECT_EQ(nameOf(unchanged), "old");
    std::string reason = "not told";
    EXPECT_TRUE(run.server().reloadCertificates(&reason));
    EXPECT_EQ(reason, "");
    RawClient after(run.port(), [](SSL_CTX*, SSL*) {});
    EXPECT_EQ(nameOf(after), "new");
    EXPECT_EQ(ask(before), "||full");
    EXPECT_EQ(ask(after), "||full");
}

TEST_F(CertificateFiles, ThatAreBadLeaveThoseInUse)
{
    EventRun run(&respondWithClient, with(filesOf(makeCertificate({"old", {}}))));
    write("key.pem", makeCertificate({"other", {}}).key);
    std::string reason;
    EXPECT_FALSE(run.server().reloadCertificates(&reason));
    const std::string wanted =
        "ServerOptions::tls[0].certificates[0]: " + mDirectory.path().string() +
        "/chain.pem, line 1: the certificate does not match the key of " +
        mDirectory.path().string() + "/key.pem";
    EXPECT_EQ(reason, wanted);
    EXPECT_THAT(integration::processLog->lines("Certificates not reloaded: " + wanted +
                                               "; those in use stay"),
                SizeIs(1));
    RawClient client(run.port(), [](SSL_CTX*, SSL*) {});
    EXPECT_EQ(nameOf(client), "old");
    EXPECT_EQ(ask(client), "||full");
}

TEST_F(CertificateFiles, AreNotReloadedByAServerWithoutSecureEndpoints)
{
    EventRun run([](EventRequest& r) { r.respondHere(200, ""); }, onOneThread());
    if (integration::isSecure())
        GTEST_SKIP() << "every server has one";
    std::string reason;
    EXPECT_FALSE(run.server().reloadCertificates(&reason));
    EXPECT_EQ(reason, "the server has no secure endpoint");
}

TEST_F(CertificateFiles, ThatCannotBeUsedAreNamedWithTheReason)
{
    const TestCertificate good = makeCertificate({"good", {}});
    const TestCertificate expired = makeCertificate({"expired", {}, -7200, -3600});
    const std::string chain = write("chain.pem", good.certificate);
    const std::string key = write("key.pem", good.key);
    const std::string encrypted = write("encrypted.pem", encryptKey(good.key, "secret"));
    const std::string longChain = write("long.pem", good.certificate + expired.certificate);
    const std::string empty = write("empty.pem", "");
    const std::string broken = write(
        "broken.pem", "comment\n-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    const auto lines =
        static_cast<size_t>(std::count(good.certificate.begin(), good.certificate.end(), '\n'));
    const std::string none = mDirectory.path().string() + "/none.pem";
    const struct
    {
        const char* name;
        qv::http::TlsCertificate certificate;
        std::string why;
    } rows[] = {
        {"no chain", {"", key, "", ""}, "no certificate; give its file in TlsCertificate::chain"},
        {"no key", {chain, "", "", ""}, "no key; give its file in TlsCertificate::key"},
        {"no file", {none, key, "", ""}, "cannot read " + none + ": no such file or directory"},
        {"a directory",
         {mDirectory.path().string(), key, "", ""},
         "cannot read " + mDirectory.path().string() + ": is a directory"},
        {"no key file",
         {chain, none, "", ""},
         "cannot read " + none + ": no such file or directory"},
        {"empty chain", {empty, key, "", ""}, empty + ": no certificate in PEM"},
        {"empty key", {chain, empty, "", ""}, empty + ": no private key in PEM"},
        {"broken", {broken, key, "", ""}, broken + ", line 2: the certificate cannot be decoded: "},
        {"expired issuer",
         {longChain, key, "", ""},
         longChain + ", line " + std::to_string(lines + 1) + ": the certificate has expired on 20"},
        {"other key",
         {chain, write("other.pem", expired.key), "", ""},
         chain + ", line 1: the certificate does not match the key of "},
        {"encrypted",
         {chain, encrypted, "", ""},
         encrypted + ": the key is encrypted; give its password"},
        {"wrong password",
         {chain, encrypted, "wrong", ""},
         encrypted + ": the password of the key is wrong"},
        {"text",
         {good.certificate, expired.key, "", ""},
         "the text, line 1: the certificate does not match the key of the text"},
        {"OCSP", {chain, key, "", chain}, chain + ": no OCSP response in DER"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        TlsOptions tls;
        tls.certificates.push_back(row.certificate);
        EXPECT_THAT(failureOf(tls), HasSubstr("ServerOptions::tls[0].certificates[0]: " + row.why));
    }
    TlsOptions right;
    right.certificates.push_back({chain, encrypted, "secret", ""});
    EXPECT_EQ(failureOf(right), "it has started");
    right.clientCertificates = ClientCertificates::Required;
    EXPECT_THAT(
        failureOf(right),
        HasSubstr("ServerOptions::tls[0].clientAuthorities: no authority; give their file in "
                  "TlsOptions::clientAuthorities"));
    right.clientAuthorities = empty;
    EXPECT_THAT(failureOf(right),
                HasSubstr("clientAuthorities: " + empty + ": no certificate in PEM"));
}

TEST_F(CertificateFiles, HaveTheirOcspResponseSent)
{
    OCSP_RESPONSE* const made = OCSP_response_create(OCSP_RESPONSE_STATUS_SUCCESSFUL, nullptr);
    unsigned char* encoded = nullptr;
    const int bytes = i2d_OCSP_RESPONSE(made, &encoded);
    OCSP_RESPONSE_free(made);
    const std::string response(reinterpret_cast<char*>(encoded), static_cast<size_t>(bytes));
    OPENSSL_free(encoded);
    TlsOptions tls = localhostTls();
    tls.certificates.front().ocspResponse = write("ocsp.der", response);
    EventRun run(&respondWithClient, with(tls));
    RawClient client(run.port(), [](SSL_CTX*, SSL* session) {
        SSL_set_tlsext_status_type(session, TLSEXT_STATUSTYPE_ocsp);
    });
    ASSERT_TRUE(client.isSecure());
    unsigned char* stapled = nullptr;
    const long stapledBytes = SSL_get_tlsext_status_ocsp_resp(client.session(), &stapled);
    ASSERT_GT(stapledBytes, 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(stapled), static_cast<size_t>(stapledBytes)),
              response);
}

TEST(SecureOptions, ThatAreImpossibleAreNamed)
{
    const struct
    {
        const char* name;
        void (*change)(ServerOptions&);
        const char* why;
    } rows[] = {
        {"no certificate", [](ServerOptions& o) { o.tls[0].certificates.clear(); },
         "ServerOptions::tls[0].certificates: no certificate"},
        {"timeout",
         [](ServerOptions& o) { o.tls[0].handshakeTimeout = std::chrono::milliseconds(-1); },
         "ServerOptions::tls[0].handshakeTimeout: -1 is not between 0 and 86400000 ms"},
        {"version",
         [](ServerOptions& o) { o.tls[0].minimumVersion = static_cast<TlsVersion>(0x302); },
         "ServerOptions::tls[0].minimumVersion: neither Tls12 nor Tls13"},
        {"clients",
         [](ServerOptions& o) { o.tls[0].clientCertificates = static_cast<ClientCertificates>(3); },
         "ServerOptions::tls[0].clientCertificates: neither None nor Requested nor Required"},
        {"a field of a later version", [](ServerOptions& o) { o.tls[0].reservedNumbers[1] = 1; },
         "ServerOptions::tls[0].reserved: set by a program for a later version of the library"},
        {"the same of a certificate",
         [](ServerOptions& o) { o.tls[0].certificates[0].reservedTexts[0] = "x"; },
         "ServerOptions::tls[0].reserved: set by a program for a later version of the library"},
        {"unknown endpoint", [](ServerOptions& o) { o.tls[0].endpoints = {"x:1"}; },
         "ServerOptions::tls[0].endpoints: \"x:1\" is no entry of ServerOptions::listen"},
        {"unknown redirection", [](ServerOptions& o) { o.redirectToHttps = {"x:1"}; },
         "ServerOptions::redirectToHttps: \"x:1\" is no entry of ServerOptions::listen"},
        {"two for all", [](ServerOptions& o) { o.tls.push_back(o.tls[0]); },
         "ServerOptions::tls: only one record may be without endpoints"},
        {"two for one",
         [](ServerOptions& o) {
             o.tls[0].endpoints = o.listen;
             o.redirectToHttps = o.listen;
         },
         "ServerOptions::tls: \"127.0.0.1:0\" is named twice; an endpoint has one TLS or "
         "redirects"},
        {"port",
         [](ServerOptions& o) {
             o.redirectToHttps = o.listen;
             o.httpsPort = 0;
         },
         "ServerOptions::httpsPort: 0 is not between 1 and 65535"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ServerOptions options = with(localhostTls());
        row.change(options);
        try {
            const EventRun run(&respondWithClient, options);
            ADD_FAILURE() << "it has started";
        } catch (const std::runtime_error& error) {
            EXPECT_THAT(error.what(), HasSubstr(row.why));
        }
    }
}

TEST(Redirection, NamesTheSameTargetOnHttps)
{
    for (const uint16_t port : {uint16_t{443}, uint16_t{8443}}) {
        ServerOptions options = with(localhostTls());
        options.listen = {"127.0.0.1:0", "localhost:0"};
        options.redirectToHttps = {"127.0.0.1:0"};
        options.httpsPort = port;
        EventRun run([](EventRequest&) { ADD_FAILURE() << "a request"; }, options);
        const std::string at = port == 443 ? "" : ":8443";
        const struct
        {
            const char* name;
            std::string request;
            int status;
            std::string location;
        } rows[] = {
            {"origin form", "GET /a?b=%20 HTTP/1.1\r\nHost: Shop.test:80\r\n\r\n", 308,
             "https://shop.test" + at + "/a?b=%20"},
            {"IPv6", "GET / HTTP/1.1\r\nHost: [::1]:80\r\n\r\n", 308, "https://[::1]" + at + "/"},
            {"absolute form", "GET http://other.test:81/x HTTP/1.1\r\nHost: shop.test\r\n\r\n", 308,
             "https://other.test" + at + "/x"},
            {"absolute form without a path",
             "GET http://other.test?q HTTP/1.1\r\nHost: other.test\r\n\r\n", 308,
             "https://other.test" + at + "/?q"},
            {"upload", "POST /up HTTP/1.1\r\nHost: shop.test\r\nContent-Length: 9\r\n\r\n", 308,
             "https://shop.test" + at + "/up"},
            {"no host", "GET / HTTP/1.0\r\n\r\n", 400, ""},
            {"no name", "GET / HTTP/1.1\r\nHost: a/b\r\n\r\n", 400, ""},
        };
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            RawClient client(RawClient::Connected{integration::connectPlain(run.port())});
            client.send(row.request);
            const auto response = client.receive();
            ASSERT_TRUE(response);
            EXPECT_EQ(response->status, row.status);
            EXPECT_EQ(response->value("Location"), row.location);
        }
    }
}

TEST(StrictTransport, IsSentUnlessTheApplicationHasItsOwn)
{
    TlsOptions tls = localhostTls();
    tls.strictTransportSeconds = 31536000;
    EventRun run(
        [](EventRequest& request) {
            if (request.getOriginalFullUrl() == "/own")
                request.response.headers["hsts"] = {"strict-transport-security", "max-age=0"};
            request.respondHere(200, "");
        },
        with(tls));
    RawClient client(run.port(), [](SSL_CTX*, SSL*) {});
    for (const auto& [target, value] : std::vector<std::pair<const char*, const char*>>{
             {"/", "max-age=31536000"}, {"/own", "max-age=0"}}) {
        client.send(getRequest(target));
        const auto response = client.receive();
        ASSERT_TRUE(response);
        EXPECT_EQ(response->value("Strict-Transport-Security"), value);
    }
}

}  // namespace
