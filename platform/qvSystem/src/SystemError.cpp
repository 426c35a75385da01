// Texts of errno values.

#include <qvSystem/SystemError.h>

#include <system_error>

namespace qv
{

std::string SystemError::toString() const
{
    return std::system_category().message(mValue);
}

}  // namespace qv
