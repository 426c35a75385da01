// The handlers of docs/forms.md: fields, small files, and uploads of any size.

#include <Wendrel/kit/Server.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

using qv::kit::ContentType;
using qv::kit::DeferredResponse;
using qv::kit::Form;
using qv::kit::FormFile;
using qv::kit::NewFile;
using qv::kit::Part;
using qv::kit::PartHead;
using qv::kit::PartTaker;
using qv::kit::Request;

namespace
{

constexpr const char* kPage = R"(<!DOCTYPE html>
<title>Tasks</title>
<form action="/tasks" method="post" enctype="multipart/form-data">
<input name="title"><input name="priority" type="number"><input name="urgent" type="checkbox">
<input name="picture" type="file"><button>Add</button>
</form>
)";

constexpr uint64_t kMaxFileBytes = 1u << 30;

void addTask(Request& request)
{
    const Form& form = request.form();
    const std::string title = form.field("title").asText();
    const int64_t priority = form.field("priority").asInt(3, 1, 5);
    const bool urgent = form.field("urgent").asBool(false);
    std::string text = title + ", " + std::to_string(priority) + (urgent ? ", urgent" : "");
    if (const FormFile* const picture = form.file("picture"))
        text +=
            ", " + picture->fileName + " of " + std::to_string(picture->content.size()) + " bytes";
    request.reply(text + "\n");
}

// Each file goes to the disk while it is received.
void upload(Request& request, const std::string& directory)
{
    std::string album;
    std::string text;
    request.readParts([&](Part& part) {
        if (part.isFile() && !part.fileNameAsSent().empty())
            text += part.fileName() + ": " +
                    std::to_string(part.saveTo(directory + "/" + part.fileName(), kMaxFileBytes)) +
                    "\n";
        else if (part.name() == "album")
            album = part.text(100);
    });
    request.reply(album + "\n" + text);
}

// The same without a worker while the client is slow. The callbacks keep the response.
void uploadLater(Request& request, const std::string& directory)
{
    struct Incoming
    {
        DeferredResponse later;
        std::string text;
    };
    auto incoming = std::make_shared<Incoming>();
    incoming->later = request.defer();
    incoming->later.onParts(
        [incoming, directory](const PartHead& part) -> PartTaker {
            if (!part.isFile() || part.fileNameAsSent().empty())
                return nullptr;
            auto file = std::make_shared<NewFile>(directory + "/" + part.fileName());
            return [incoming, file, name = part.fileName()](std::string_view piece) {
                file->write(piece);
                if (!piece.empty())
                    return;
                file->complete();
                incoming->text += name + ": " + std::to_string(file->size()) + "\n";
            };
        },
        [incoming] { incoming->later.reply(incoming->text); });
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string directory = argc > 2 ? argv[2] : ".";

    qv::kit::Server server;
    server.router().get("/", [](Request& request) { request.reply(kPage, ContentType::html()); });
    server.router().post("/tasks", &addTask);
    server.router()
        .post("/upload", [&](Request& request) { upload(request, directory); })
        .streaming();
    server.router()
        .post("/later", [&](Request& request) { uploadLater(request, directory); })
        .streaming()
        .maxBodyBytes(kMaxFileBytes);
    return server.run(argc > 1 ? argv[1] : "127.0.0.1:8181");
}
