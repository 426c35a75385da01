// A global locale that groups the digits of numbers, for as long as it lives.
#ifndef WENDREL_TESTS_GROUPINGLOCALE_H
#define WENDREL_TESTS_GROUPINGLOCALE_H

#include <locale>
#include <memory>
#include <string>

namespace qv::tests
{

class GroupingLocale
{
public:
    GroupingLocale()
        // The locale owns its facet.
        : mBefore(std::locale::global(
              std::locale(std::locale::classic(), std::make_unique<Digits>().release())))
    {}
    ~GroupingLocale() { std::locale::global(mBefore); }
    GroupingLocale(const GroupingLocale&) = delete;
    GroupingLocale& operator=(const GroupingLocale&) = delete;

private:
    class Digits : public std::numpunct<char>
    {
    protected:
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\1"; }
    };

    const std::locale mBefore;
};

}  // namespace qv::tests

#endif
