// wendrel-bench-beast: the benchmark's pages, served by Boost.Beast.

#include "beast/Listener.h"
#include "support/Options.h"
#include "support/StopSignal.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>

#include <iostream>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace
{

constexpr const char* kAbout =
    "On Boost.Beast, with --threads threads that run its connections. inline: they also respond.\n"
    "worker: a pool of --workers threads does; for a stream it is asked for each piece. Messages\n"
    "of WebSockets are echoed where they are received in both.";

// The suites of the library, in its order: they differ in speed.
constexpr const char* kSuites =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";

void setUp(boost::asio::ssl::context& tls, const bench::Options& options)
{
    tls.use_certificate_chain_file(options.tlsCertificate);
    tls.use_private_key_file(options.tlsKey, boost::asio::ssl::context::pem);
    SSL_CTX_set_ciphersuites(tls.native_handle(), kSuites);
    SSL_CTX_set_options(tls.native_handle(), SSL_OP_CIPHER_SERVER_PREFERENCE);
}

void serve(const bench::Options& options, bench::StopSignal& stopSignal)
{
    namespace asio = boost::asio;
    asio::io_context context(static_cast<int>(options.threads));
    bench::Acceptor acceptor = bench::listen(context, options.port);
    std::unique_ptr<asio::thread_pool> workers;  // its remaining tasks use the context
    if (options.mode == bench::Mode::Worker)
        workers = std::make_unique<asio::thread_pool>(options.workers);
    asio::ssl::context tls(asio::ssl::context::tls_server);
    const bool isSecure = !options.tlsCertificate.empty();
    if (isSecure)
        setUp(tls, options);
    const bench::Service service{workers.get(), options.webSocket, isSecure ? &tls : nullptr};
    asio::co_spawn(context.get_executor(), bench::acceptConnections(std::move(acceptor), service),
                   asio::detached);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < options.threads; ++i)
        threads.emplace_back([&context] { context.run(); });
    bench::announceListening(options.port);
    stopSignal.wait();
    context.stop();
    for (std::thread& thread : threads)
        thread.join();
    if (workers) {
        workers->stop();
        workers->join();
    }
}

}  // namespace

int main(int argc, char** argv)
{
    bench::Options options;
    int exitCode = 0;
    const bench::Program program{.name = "wendrel-bench-beast", .about = kAbout, .hasTls = true};
    if (!bench::parseOptions(argc, argv, program, options, exitCode))
        return exitCode;
    bench::StopSignal stopSignal;  // before any thread
    try {
        serve(options, stopSignal);
    } catch (const boost::system::system_error& error) {
        std::cerr << "wendrel-bench-beast: cannot listen on port " << options.port << ": "
                  << error.what() << std::endl;
        return 1;
    }
    return 0;
}
