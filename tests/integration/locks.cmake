# Counts the locks that servers of one process share. A program of its own: it replaces a function of
# the C library.

wendrel_test_program(integration_locks
    SOURCES main.cpp support/CurlClient.cpp support/Pattern.cpp support/RawClient.cpp locks/ProcessWideLocks.cpp
    LIBRARIES Wendrel::Kit CURL::libcurl ${CMAKE_DL_LIBS})
