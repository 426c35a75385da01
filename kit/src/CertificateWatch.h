// The files of certificates, looked at again and again.
#ifndef WENDREL_KIT_CERTIFICATEWATCH_H
#define WENDREL_KIT_CERTIFICATEWATCH_H

#include <Wendrel/ServerOptions.h>

#include <cstdint>
#include <string>
#include <vector>

#include <sys/types.h>

namespace qv::kit
{

// One thread's own.
class CertificateWatch
{
public:
    // Notes the files as they are now.
    explicit CertificateWatch(const std::vector<http::TlsOptions>& tls);

    // True once after a change, when the files have been the same for two calls: a job that writes
    // several files is not disturbed.
    bool hasChanged();

private:
    struct State
    {
        dev_t device = 0;
        ino_t number = 0;
        off_t bytes = 0;
        int64_t changedNs = 0;  // also by a change of its owner or its mode

        bool operator==(const State& other) const;
    };
    using States = std::vector<State>;

    void add(const std::string& from);
    States look() const;

    std::vector<std::string> mPaths;
    States mReported;
    States mLast;
};

}  // namespace qv::kit

#endif
