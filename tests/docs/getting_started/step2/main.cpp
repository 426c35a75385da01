// Notes in memory: paths, queries, JSON, small bodies, errors.

#include <Wendrel/kit/Server.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <string>

using qv::kit::ContentType;
using qv::kit::HttpError;
using qv::kit::Request;

// A text, which is UTF-8, as a string of JSON.
std::string quoted(const std::string& text)
{
    std::string json = "\"";
    for (const char c : text) {
        char escaped[8] = {c, '\0'};
        if (c == '"' || c == '\\')
            std::snprintf(escaped, sizeof escaped, "\\%c", c);
        else if (static_cast<unsigned char>(c) < ' ')
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
        json += escaped;
    }
    return json + "\"";
}

class Notes
{
public:
    // GET /notes?contains=TEXT
    void list(Request& request)
    {
        const std::string& part = request.query("contains");
        std::string json;
        const std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& [id, text] : mNotes) {
            if (text.find(part) != std::string::npos)
                json += (json.empty() ? "" : ",") + ("{\"id\":" + id) +
                        ",\"text\":" + quoted(text) + "}";
        }
        request.reply("[" + json + "]\n", ContentType::json());
    }

    // POST /notes
    void add(Request& request)
    {
        const std::string& text = request.body();
        if (text.empty())
            throw HttpError(422, "A note needs a text.");
        const std::lock_guard<std::mutex> lock(mMutex);
        const std::string id = std::to_string(++mLastId);
        mNotes[id] = text;
        request.setHeader("Location", "/notes/" + id);
        request.reply(201, "{\"id\":" + id + "}\n", ContentType::json());
    }

    // GET /notes/{id}
    void show(Request& request)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        const auto found = mNotes.find(request.pathParameter("id"));
        if (found == mNotes.end())
            throw HttpError(404, "There is no such note.");
        request.reply(found->second);
    }

    // DELETE /notes/{id}
    void remove(Request& request)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mNotes.erase(request.pathParameter("id")) == 0)
            throw HttpError(404, "There is no such note.");
        request.reply(204);
    }

private:
    std::mutex mMutex;  // handlers run on several threads at once
    std::map<std::string, std::string> mNotes;
    unsigned mLastId = 0;
};

int main(int argc, char** argv)
{
    Notes notes;  // outlives the server, whose handlers use it
    qv::kit::Server server;
    qv::kit::Router& router = server.router();
    router.get("/notes", [&](Request& request) { notes.list(request); });
    router.post("/notes", [&](Request& request) { notes.add(request); }).maxBodyBytes(10000);
    router.get("/notes/{id}", [&](Request& request) { notes.show(request); });
    router.del("/notes/{id}", [&](Request& request) { notes.remove(request); });
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}
