// The benchmark's pages.
#ifndef BENCH_CIVETWEB_PAGES_H
#define BENCH_CIVETWEB_PAGES_H

#include <civetweb.h>

namespace bench
{

void addPages(mg_context* server);

}  // namespace bench

#endif
