#ifndef OSTRAND_HTTPHEADERS_H
#define OSTRAND_HTTPHEADERS_H

#include <qvSystem/Export.h>

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <string_view>

namespace qv
{
namespace http
{

/// Header fields: names and, for each, its values in order of arrival. Names are stored as
/// given and compared byte by byte. No name is stored without a value. A plain value; may be
/// read by several threads at once.
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
    /// the one after the weekday of an HTTP date. An unterminated quote is text. Spaces and
    /// tabs around a part are removed and empty parts dropped; a value without any part gives
    /// one empty part. Returns false, with `values` unchanged, on a control character other
    /// than tab. The time is linear in the length of `value`.
    static bool ParseMultiValueHeader(const char* value, std::list<std::string>& values);

    /// Appends `values` to those of `name`; their line is the values joined by ", ". An empty
    /// list adds nothing.
    void addHeaderValues(const std::string& name, const std::list<std::string>& values);

    /// Takes over both without a copy.
    void addHeaderValues(std::string&& name, std::list<std::string>&& values);

    /// Takes over both. `line` is the field value that `values` were split from; it is copied
    /// only where it differs from the values.
    void addHeaderValues(std::string&& name, std::list<std::string>&& values,
                         std::string_view line);

    /// The values of `name`, never empty; null when there is no such header.
    const std::list<std::string>* find(const std::string& name) const;

    /// The field value of `name` as it was received, neither split nor trimmed; the lines of a
    /// repeated header are joined by ", ". Null when there is no such header.
    const std::string* findLine(const std::string& name) const;

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
    std::map<std::string, std::string> mLines;  // of names whose value is not the whole line
};

}  // namespace http
}  // namespace qv

#endif
