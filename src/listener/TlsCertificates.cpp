// Each certificate of a chain is decoded by itself, so that an error can name its line.

#include "listener/TlsCertificates.h"

#include <qvSystem/SystemError.h>

#include <openssl/pem.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string_view>
#include <utility>

namespace qv::impl
{
namespace
{

constexpr std::string_view kBegin = "-----BEGIN";
constexpr std::string_view kBeginCertificate = "-----BEGIN CERTIFICATE-----";
constexpr std::string_view kBeginTrusted = "-----BEGIN TRUSTED CERTIFICATE-----";
constexpr std::string_view kBeginOldForm = "-----BEGIN X509 CERTIFICATE-----";
constexpr size_t kMaxFileBytes = 1048576;

bool startsWith(std::string_view text, std::string_view start)
{
    return text.substr(0, start.size()) == start;
}

bool isText(const std::string& from)
{
    return startsWith(from, kBegin);
}

std::string systemText(int error)
{
    std::string text = SystemError(error).toString();
    if (!text.empty())
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

// The path, or a name for a text.
std::string nameOf(const std::string& from)
{
    return isText(from) ? "the text" : from;
}

std::string readFile(const std::string& path, std::string& content)
{
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rbe"), &std::fclose);
    if (!file)
        return "cannot read " + path + ": " + systemText(errno);
    std::array<char, 4096> bytes;
    for (size_t got = 0; (got = std::fread(bytes.data(), 1, bytes.size(), file.get())) != 0;) {
        content.append(bytes.data(), got);
        if (content.size() > kMaxFileBytes)
            return "cannot read " + path + ": more than " + std::to_string(kMaxFileBytes) +
                   " bytes";
    }
    return std::ferror(file.get()) ? "cannot read " + path + ": " + systemText(errno)
                                   : std::string();
}

std::string readContent(const std::string& from, std::string& content)
{
    if (!isText(from))
        return readFile(from, content);
    content = from;
    return std::string();
}

std::string describe(const ASN1_TIME* time)
{
    std::tm parts{};
    std::array<char, 32> text{};
    if (ASN1_TIME_to_tm(time, &parts) != 1 ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts) == 0)
        return "an unknown date";
    return text.data();
}

struct Place
{
    const std::string& name;
    size_t line;

    std::string toString() const { return name + ", line " + std::to_string(line) + ": "; }
};

// One that is not valid yet is used: the clock of a device may be late after its start.
std::string checkUse(X509* certificate, const Place& place)
{
    const ASN1_TIME* const end = X509_get0_notAfter(certificate);
    if (X509_cmp_current_time(end) < 0)
        return place.toString() + "the certificate has expired on " + describe(end);
    return std::string();
}

// The certificates of `content` in order, with the line on which each begins.
std::string readCertificates(const std::string& name, const std::string& content,
                             std::vector<CertificatePointer>& read, std::vector<size_t>& lines)
{
    size_t line = 0;
    for (size_t begin = 0; begin < content.size();) {
        const size_t end = std::min(content.find('\n', begin), content.size());
        ++line;
        const std::string_view text = std::string_view(content).substr(begin, end - begin);
        if (startsWith(text, kBeginCertificate) || startsWith(text, kBeginTrusted) ||
            startsWith(text, kBeginOldForm)) {
            const std::string rest = content.substr(begin);
            const BioPointer bio = ReadBio(rest);
            CertificatePointer certificate(
                bio ? PEM_read_bio_X509_AUX(bio.get(), nullptr, nullptr, nullptr) : nullptr);
            if (!certificate)
                return Place{name, line}.toString() +
                       "the certificate cannot be decoded: " + TakeTlsError();
            std::string why = checkUse(certificate.get(), {name, line});
            if (!why.empty())
                return why;
            read.push_back(std::move(certificate));
            lines.push_back(line);
        }
        begin = end + 1;
    }
    return read.empty() ? name + ": no certificate in PEM" : std::string();
}

struct Password
{
    const std::string& text;
    bool wasAsked = false;
};

// Password callback; `closure` is a Password.
int givePassword(char* buffer, int size, int, void* closure)
{
    auto& password = *static_cast<Password*>(closure);
    password.wasAsked = true;
    const size_t bytes = password.text.size();
    if (bytes == 0 || bytes > static_cast<size_t>(size))
        return -1;
    std::copy(password.text.begin(), password.text.end(), buffer);
    return static_cast<int>(bytes);
}

std::string readKey(const http::TlsCertificate& from, KeyPointer& key)
{
    std::string content;
    std::string why = readContent(from.key, content);
    if (!why.empty())
        return why;
    const std::string name = nameOf(from.key);
    const BioPointer bio = ReadBio(content);
    Password password{from.password};
    key.reset(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, &givePassword, &password)
                  : nullptr);
    OPENSSL_cleanse(content.data(), content.size());
    if (key)
        return std::string();
    ERR_clear_error();
    if (password.wasAsked && from.password.empty())
        return name + ": the key is encrypted; give its password";
    if (password.wasAsked)
        return name + ": the password of the key is wrong";
    return name + ": no private key in PEM";
}

std::string readOcspResponse(const std::string& path, std::string& response)
{
    std::string why = readFile(path, response);
    if (!why.empty())
        return why;
    const auto* bytes = reinterpret_cast<const unsigned char*>(response.data());
    const OcspPointer decoded(
        d2i_OCSP_RESPONSE(nullptr, &bytes, static_cast<long>(response.size())));
    if (!decoded) {
        ERR_clear_error();
        return path + ": no OCSP response in DER";
    }
    if (OCSP_response_status(decoded.get()) != OCSP_RESPONSE_STATUS_SUCCESSFUL)
        return path + ": the OCSP response is an error (" +
               OCSP_response_status_str(OCSP_response_status(decoded.get())) + ")";
    return std::string();
}

}  // namespace

std::string LoadKeyPair(const http::TlsCertificate& from, TlsKeyPair& loaded)
{
    if (from.chain.empty())
        return "no certificate; give its file in TlsCertificate::chain";
    if (from.key.empty())
        return "no key; give its file in TlsCertificate::key";
    std::string content;
    std::string why = readContent(from.chain, content);
    const std::string name = nameOf(from.chain);
    std::vector<size_t> lines;
    if (why.empty())
        why = readCertificates(name, content, loaded.issuers, lines);
    if (why.empty())
        why = readKey(from, loaded.key);
    if (!why.empty())
        return why;
    loaded.certificate = std::move(loaded.issuers.front());
    loaded.issuers.erase(loaded.issuers.begin());
    if (X509_check_private_key(loaded.certificate.get(), loaded.key.get()) != 1) {
        ERR_clear_error();
        return Place{name, lines.front()}.toString() +
               "the certificate does not match the key of " + nameOf(from.key);
    }
    return from.ocspResponse.empty() ? std::string()
                                     : readOcspResponse(from.ocspResponse, loaded.ocspResponse);
}

std::string LoadAuthorities(const std::string& from, std::vector<CertificatePointer>& loaded)
{
    std::string content;
    std::string why = readContent(from, content);
    std::vector<size_t> lines;
    return why.empty() ? readCertificates(nameOf(from), content, loaded, lines) : why;
}

}  // namespace qv::impl
