// Accept and Accept-Encoding: weights are in their range, elements lie within the header, and a
// body of an error is made for each of them.

#include "support/Check.h"

#include "Accept.h"
#include "ErrorBody.h"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace qv::kit;
    const std::string_view header(reinterpret_cast<const char*>(data), size);
    std::string_view rest = header;
    std::string_view name;
    int weight = -1;
    int highest = 0;
    size_t elements = 0;
    while (takeAccepted(rest, name, weight)) {
        FUZZ_CHECK(!name.empty() && weight >= 0 && weight <= 1000);
        FUZZ_CHECK(name.data() >= header.data() &&
                   name.data() + name.size() <= header.data() + header.size());
        highest = weight > highest ? weight : highest;
        ++elements;
    }
    FUZZ_CHECK(rest.empty() && elements <= size);
    bool isNamed = false;
    const int html = weightOfType(header, "text/html", isNamed);
    FUZZ_CHECK(html >= 0 && (html <= highest || elements == 0));
    FUZZ_CHECK(weightOfCoding(header, "gzip") <= highest);
    FUZZ_CHECK(weightOfCoding(header, "identity") <= (highest > 1 ? highest : 1));
    const ErrorBody body = makeErrorBody(header, 404, "none");
    FUZZ_CHECK(!body.text.empty() && !body.type.value().empty());
    return 0;
}
