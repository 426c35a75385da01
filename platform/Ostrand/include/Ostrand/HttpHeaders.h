#ifndef OSTRAND_HTTPHEADERS_H
#define OSTRAND_HTTPHEADERS_H

#include <qvSystem/Export.h>

#include <cstddef>
#include <list>
#include <map>
#include <string>

namespace qv
{
namespace http
{

/// Header fields: names and, for each, its values in order of arrival. Names are stored as
/// given and compared byte by byte. A plain value; may be read by several threads at once.
class QV_EXPORT HttpHeaders
{
public:
    /// Name to values.
    using Map = std::map<std::string, std::list<std::string>>;
    /// Over names and their values.
    using const_iterator = Map::const_iterator;

    /// Splits the value of a list header at its commas and appends the parts to `values`.
    ///
    /// A comma inside a quoted string or a parenthesised comment does not split, nor does
    /// the one after the weekday of an HTTP date. Blanks and tabs around a part are
    /// removed and empty parts dropped; an empty header value gives one empty part.
    /// Returns false, with `values` unchanged, on an unterminated quoted string and on a
    /// control character other than tab.
    static bool ParseMultiValueHeader(const char* value, std::list<std::string>& values);

    /// Appends `values` to those of `name`.
    void addHeaderValues(const std::string& name, const std::list<std::string>& values);

    /// The same, taking over both without a copy.
    void addHeaderValues(std::string&& name, std::list<std::string>&& values);

    /// The values of `name`, or null when there is no such header.
    const std::list<std::string>* find(const std::string& name) const;

    /// Iteration in the order of names; each entry is a name and its values.
    const_iterator begin() const { return mValues.begin(); }
    /// See `begin`.
    const_iterator end() const { return mValues.end(); }

    /// True when there is no header.
    bool empty() const { return mValues.empty(); }

    /// Number of different names.
    size_t size() const { return mValues.size(); }

private:
    Map mValues;
};

}  // namespace http
}  // namespace qv

#endif
