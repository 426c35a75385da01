#ifndef QVSYSTEM_SYSTEMERROR_H
#define QVSYSTEM_SYSTEMERROR_H

#include <qvSystem/Export.h>

#include <string>

namespace qv
{

/// The text of an `errno` value.
class QV_EXPORT SystemError
{
public:
    /// `errnoValue` as the system has set it.
    explicit SystemError(int errnoValue) : mValue(errnoValue) {}

    /// The value given to the constructor.
    int getValue() const { return mValue; }

    /// For example "Connection refused". Any thread.
    std::string toString() const;

private:
    int mValue;
};

}  // namespace qv

#endif
