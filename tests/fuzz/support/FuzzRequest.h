// The least of a request that intake can be tried on.
#ifndef WENDREL_TESTS_FUZZ_FUZZREQUEST_H
#define WENDREL_TESTS_FUZZ_FUZZREQUEST_H

#include <Wendrel/HttpDevices.h>
#include <Wendrel/HttpRequest.h>

#include <cstdlib>

namespace fuzz
{

// Intake asks for neither of the two.
class FuzzRequest : public qv::HttpBaseRequest
{
public:
    qv::HttpResponseInterface& getResponse() override { std::abort(); }
    qv::HttpWaitListener& getWaitListener() override { std::abort(); }
};

}  // namespace fuzz

#endif
