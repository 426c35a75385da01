// A change of a file is one of its time, size or number: a renamed file has another number.

#include "CertificateWatch.h"

#include <sys/stat.h>

namespace qv::kit
{
namespace
{

constexpr const char* kTextBegin = "-----BEGIN";
constexpr int64_t kNsPerSecond = 1000000000;

}  // namespace

CertificateWatch::CertificateWatch(const std::vector<http::TlsOptions>& tls)
{
    for (const http::TlsOptions& each : tls) {
        add(each.clientAuthorities);
        for (const http::TlsCertificate& certificate : each.certificates) {
            add(certificate.chain);
            add(certificate.key);
            add(certificate.ocspResponse);
        }
    }
    mReported = look();
    mLast = mReported;
}

void CertificateWatch::add(const std::string& from)
{
    if (!from.empty() && from.rfind(kTextBegin, 0) != 0)
        mPaths.push_back(from);
}

bool CertificateWatch::State::operator==(const State& other) const
{
    return device == other.device && number == other.number && bytes == other.bytes &&
           changedNs == other.changedNs;
}

// A file that is missing for a moment is an empty one.
CertificateWatch::States CertificateWatch::look() const
{
    States states;
    for (const std::string& path : mPaths) {
        struct stat found
        {};
        State state;
        if (stat(path.c_str(), &found) == 0)
            state = {found.st_dev, found.st_ino, found.st_size,
                     found.st_ctim.tv_sec * kNsPerSecond + found.st_ctim.tv_nsec};
        states.push_back(state);
    }
    return states;
}

bool CertificateWatch::hasChanged()
{
    States now = look();
    const bool isStable = now == mLast;
    mLast = std::move(now);
    if (!isStable || mLast == mReported)
        return false;
    mReported = mLast;
    return true;
}

}  // namespace qv::kit
