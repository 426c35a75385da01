// Files as responses: conditions, ranges, headers.
#ifndef WENDREL_KIT_SRC_FILERESPONSE_H
#define WENDREL_KIT_SRC_FILERESPONSE_H

#include "FileDescriptor.h"

#include <Wendrel/kit/Files.h>
#include <Wendrel/kit/ResponseHead.h>

#include <functional>
#include <string>
#include <string_view>

namespace qv::kit
{

class Exchange;

// Opens a file for reading without waiting for the writer of a pipe.
FileDescriptor openFile(const std::string& path);

// Whether there is no file of that name, by the `errno` of its opening: 404.
bool isMissing(int error);

// Whether the process has no descriptor or no memory for it at the moment: 503.
bool isExhausted(int error);

// The response that `error`, the `errno` of an opening, stands for.
bool respondFailure(Exchange& exchange, ResponseHead&& head, std::string_view name, int error);

// "no-cache" when neither `value` nor the handler says anything.
void setCacheControl(ResponseHead& head, const std::string& value);

// Opens the file whose name has `extension` behind that of another one.
using OpenSibling = std::function<FileDescriptor(const char* extension)>;

// Responds to `exchange` with an open file of the name `name`. One that is not open becomes the
// response that `errno` stands for. False as Responder says.
bool respondFile(Exchange& exchange, ResponseHead&& head, FileDescriptor&& file,
                 std::string_view name, const FileOptions& options,
                 const OpenSibling& openSibling = OpenSibling());

}  // namespace qv::kit

#endif
