// The server under attack in a process of its own, and looks at it from outside.

#include "ServerProcess.h"

#include "../support/TestMode.h"
#include "../support/Waiting.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace adversarial
{

namespace
{

// The chunk pool that a running server keeps for later bodies.
constexpr size_t kKeptBytes = 4u << 20;

// Freed memory that the allocator caches for each thread: a worker deletes requests.
constexpr size_t kKeptByThreadBytes = 16u << 10;

size_t numberOf(const std::string& status, const std::string& name)
{
    const size_t at = status.find(name);
    return at == std::string::npos ? 0 : std::stoull(status.substr(at + name.size()));
}

// "word name=number name=number ..."
Report parsed(const std::string& line)
{
    Report report;
    std::istringstream words(line);
    std::string word;
    while (words >> word) {
        const size_t equals = word.find('=');
        if (equals != std::string::npos)
            report[word.substr(0, equals)] = std::stoull(word.substr(equals + 1));
    }
    return report;
}

}  // namespace

ServerProcess::ServerProcess(const std::vector<std::string>& arguments)
{
    raiseDescriptorLimit();
    std::array<int, 2> orders{};
    std::array<int, 2> replies{};
    if (::pipe2(orders.data(), O_CLOEXEC) != 0 || ::pipe2(replies.data(), O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    mOrders = orders[1];
    mReplies = replies[0];

    std::vector<std::string> words{WENDREL_ADVERSARIAL_SERVER};
    words.insert(words.end(), arguments.begin(), arguments.end());
    if (integration::isEventDriven())
        words.emplace_back("events=1");
    if (integration::isSecure())
        words.emplace_back("secure=1");
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, orders[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, replies[1], STDOUT_FILENO);
    const int error =
        ::posix_spawn(&mProcess, words[0].c_str(), &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(orders[0]);
    ::close(replies[1]);
    if (error != 0)
        throw std::runtime_error("cannot start " + words[0]);
    mPort = static_cast<uint16_t>(parsed(readLine(kLimit)).at("port"));
    mFirstDescriptors = descriptors();
}

ServerProcess::~ServerProcess()
{
    ::close(mOrders);
    ::close(mReplies);
    if (!mEnd && mProcess > 0) {
        ::kill(mProcess, SIGKILL);
        ::waitpid(mProcess, nullptr, 0);
    }
}

std::string ServerProcess::readLine(milliseconds limit)
{
    const auto end = Clock::now() + limit;
    size_t lineEnd = std::string::npos;
    while ((lineEnd = mUnread.find('\n')) == std::string::npos) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
        pollfd polled{mReplies, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&polled, 1, static_cast<int>(left.count())) <= 0)
            throw std::runtime_error("the server does not reply");
        std::array<char, 4096> piece;
        const ssize_t got = ::read(mReplies, piece.data(), piece.size());
        if (got <= 0)
            throw std::runtime_error("the server has ended");
        mUnread.append(piece.data(), static_cast<size_t>(got));
    }
    std::string line = mUnread.substr(0, lineEnd);
    mUnread.erase(0, lineEnd + 1);
    return line;
}

Report ServerProcess::ask(const std::string& order)
{
    const std::string line = order + "\n";
    if (::write(mOrders, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
        throw std::runtime_error("the server takes no orders");
    return parsed(readLine(kLimit));
}

std::map<std::string, uint64_t> ServerProcess::endings()
{
    std::map<std::string, uint64_t> counts;
    const uint64_t lines = ask("endings").at("lines");
    for (uint64_t i = 0; i < lines; ++i) {
        const std::string line = readLine(kLimit);
        const size_t space = line.find(' ');
        counts[line.substr(space + 1)] = std::stoull(line.substr(0, space));
    }
    return counts;
}

size_t ServerProcess::descriptors() const
{
    size_t count = 0;
    const std::string directory = "/proc/" + std::to_string(mProcess) + "/fd";
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        count += !entry.path().empty();
    return count;
}

Footprint ServerProcess::footprint()
{
    metrics();
    std::stringstream status;
    status << std::ifstream("/proc/" + std::to_string(mProcess) + "/status").rdbuf();
    Footprint found;
    found.descriptors = descriptors();
    found.threads = numberOf(status.str(), "Threads:");
    found.residentBytes = numberOf(status.str(), "VmRSS:") * 1024;
    return found;
}

Footprint ServerProcess::quietFootprint()
{
    EXPECT_TRUE(integration::waitUntil(
        [this] { return descriptors() <= mFirstDescriptors && metrics().at("open") == 0; }));
    return footprint();
}

Report ServerProcess::stop(milliseconds limit)
{
    const Report report = ask("stop " + std::to_string(limit.count()));
    EXPECT_EQ(waitForEnd(kLimit), std::optional<int>(0));
    EXPECT_EQ(report.at("created"), report.at("deleted"));
    return report;
}

std::optional<int> ServerProcess::waitForEnd(milliseconds limit)
{
    const auto hasEnded = [this] {
        int status = 0;
        if (!mEnd && ::waitpid(mProcess, &status, WNOHANG) == mProcess)
            mEnd = WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
        return mEnd.has_value();
    };
    integration::waitUntil(hasEnded, limit);
    return mEnd;
}

void ServerProcess::expectAsBefore(const Footprint& before, size_t toleratedBytes)
{
    toleratedBytes += kKeptBytes + before.threads * kKeptByThreadBytes;
    EXPECT_TRUE(integration::waitUntil([&] { return metrics().at("open") == 0; }));
    EXPECT_TRUE(integration::waitUntil([&] { return descriptors() <= before.descriptors; }));
    const auto isAsBefore = [&] {
        const Footprint now = footprint();
        return now.descriptors <= before.descriptors && now.threads <= before.threads &&
               (kSanitized || now.residentBytes <= before.residentBytes + toleratedBytes);
    };
    EXPECT_TRUE(integration::waitUntil(isAsBefore));
    const Footprint after = footprint();
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.threads, before.threads);
    constexpr double kKib = 1024;
    metric("resident-memory-before", static_cast<double>(before.residentBytes) / kKib, "KiB");
    metric("resident-memory-after", static_cast<double>(after.residentBytes) / kKib, "KiB");
    if (!kSanitized) {
        EXPECT_LE(after.residentBytes, before.residentBytes + toleratedBytes);
    }
}

}  // namespace adversarial
