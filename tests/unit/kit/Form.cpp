#include "FormReader.h"

#include <Wendrel/kit/HttpError.h>

#include <support/TemporaryDirectory.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>

namespace qv::kit
{
namespace
{

constexpr const char* kEncoded = "application/x-www-form-urlencoded";
constexpr const char* kMultipart = "multipart/form-data; boundary=b0";

// Fields and files, one a line.
std::string Contents(const Form& form)
{
    std::string text;
    for (const FormField& field : form.fields())
        text += field.name + "=" + field.value + "\n";
    for (const FormFile& file : form.files())
        text += file.field + ":" + file.fileName + ":" + file.type + ":" + file.content + "\n";
    return text;
}

std::string Outcome(const std::function<std::string()>& action)
{
    try {
        return action();
    } catch (const HttpError& error) {
        return std::to_string(error.status()) + " " + error.what();
    }
}

std::string Read(const char* type, const std::string& body, const FormLimits& limits = {})
{
    return Outcome([&] { return Contents(FormReader::read(type, body, limits)); });
}

// As Read for multipart bodies, with a source that gives at most `piece` bytes when asked for more,
// and parts that are read in such pieces.
std::string ReadInPieces(const std::string& body, size_t piece)
{
    return Outcome([&] {
        std::string_view rest = body;
        const auto source = [&](char* buffer, size_t size) {
            const size_t part = std::min({size, rest.size(), piece});
            std::memcpy(buffer, rest.data(), part);
            rest.remove_prefix(part);
            return part;
        };
        std::string fields;
        std::string files;
        const auto take = [&](Part& part) {
            std::string content;
            std::string buffer(piece, '\0');
            while (const size_t got = part.read(buffer.data(), buffer.size()))
                content.append(buffer, 0, got);
            if (part.isFile())
                files +=
                    part.name() + ":" + part.fileName() + ":" + part.type() + ":" + content + "\n";
            else
                fields += part.name() + "=" + content + "\n";
        };
        FormReader::readParts(kMultipart, source, take, {});
        return fields + files;
    });
}

// As Read for multipart bodies, given in pieces.
std::string FeedInPieces(std::string_view body, size_t piece, const FormLimits& limits = {})
{
    return Outcome([&] {
        std::string fields;
        std::string files;
        const auto onPart = [&](const PartHead& part) -> PartTaker {
            std::string& text = part.isFile() ? files : fields;
            text += part.name() +
                    (part.isFile() ? ":" + part.fileName() + ":" + part.type() + ":" : "=");
            return [&text](std::string_view content) { text += content.empty() ? "\n" : content; };
        };
        PartFeed feed(kMultipart, onPart, limits);
        for (size_t at = 0; at < body.size(); at += piece)
            feed.give(body.substr(at, piece));
        feed.complete();
        return fields + files;
    });
}

std::string Field(const std::string& name, const std::string& value)
{
    return "--b0\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
}

std::string File(const std::string& parameters, const std::string& content)
{
    return "--b0\r\nContent-Disposition: form-data; name=\"f\"; " + parameters +
           "\r\nContent-Type: text/csv\r\n\r\n" + content + "\r\n";
}

const std::string kEnd = "--b0--\r\n";

TEST(Form, ReadsEncodedFields)
{
    const struct
    {
        const char* body;
        const char* contents;
    } rows[] = {
        {"", ""},
        {"a=1&b=2", "a=1\nb=2\n"},
        {"a=1&a=2", "a=1\na=2\n"},
        {"a", "a=\n"},
        {"a=", "a=\n"},
        {"=1", "=1\n"},
        {"&&a=1&&", "a=1\n"},
        {"a=b=c", "a=b=c\n"},
        {"a+b=c+d%2Be", "a b=c d+e\n"},
        {"%61%3D=%c3%a4%26", "a==\xc3\xa4&\n"},
        {"a=%&b=%4&c=%zz%41", "a=%\nb=%4\nc=%zzA\n"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Read(kEncoded, row.body), row.contents) << row.body;
    EXPECT_EQ(Read("Application/X-WWW-Form-Urlencoded; charset=utf-8", "a=1"), "a=1\n");
}

TEST(Form, RefusesBytesThatAreNotUtf8)
{
    EXPECT_EQ(Read(kEncoded, "a=%ff"), "400 the form is malformed: the field \"a\" is not UTF-8");
    EXPECT_EQ(Read(kEncoded, "%ff=a").substr(0, 3), "400");
    EXPECT_EQ(Read(kMultipart, Field("a", "\xff") + kEnd).substr(0, 3), "400");
    EXPECT_EQ(Read(kMultipart, Field("\xff", "") + kEnd).substr(0, 3), "400");
}

TEST(Form, ReadsPartsInPiecesOfEverySize)
{
    const std::string body = "preamble\r\n" + Field("a", "1") + Field("empty", "") +
                             Field("lines", "x\r\n--b\r\n--b1\r\n-") +
                             File("filename=\"x.csv\"", "\r\n--b\r\r\n") + kEnd + "epilogue --b0";
    const std::string contents =
        "a=1\nempty=\nlines=x\r\n--b\r\n--b1\r\n-\nf:x.csv:text/csv:\r\n--b\r\r\n\n";
    EXPECT_EQ(Read(kMultipart, body), contents);
    for (size_t piece = 1; piece < body.size(); ++piece)
        EXPECT_EQ(ReadInPieces(body, piece), contents) << piece;
    for (size_t piece = 1; piece <= body.size(); ++piece)
        EXPECT_EQ(FeedInPieces(body, piece), contents) << piece;
    // Content around the size of the reader's buffer.
    for (size_t size = 65400; size < 65700; ++size) {
        const std::string value(size, '\r');
        ASSERT_EQ(ReadInPieces(Field("a", value) + Field("b", "2") + kEnd, 65536),
                  "a=" + value + "\nb=2\n")
            << size;
        ASSERT_EQ(FeedInPieces(Field("a", value) + Field("b", "2") + kEnd, 65536),
                  "a=" + value + "\nb=2\n")
            << size;
    }
}

// The empty line before the data may be missing with the data.
TEST(Form, FindsADelimiterRightBehindAHead)
{
    const std::string head = "--b0\r\nContent-Disposition: form-data; name=a\r\n\r\n";
    const std::string body = head + Field("b", "2") + head + kEnd;
    for (size_t piece = 1; piece <= body.size(); ++piece)
        ASSERT_EQ(ReadInPieces(body, piece), "a=\nb=2\na=\n") << piece;
    // Data that only begins like one.
    EXPECT_EQ(Read(kMultipart, head + "--b\r\n" + kEnd), "a=--b\n");
    EXPECT_EQ(Read(kMultipart, head.substr(0, head.size() - 2)), "400 the form is malformed: it "
                                                                 "ends within the head of a part");
    EXPECT_EQ(Read(kMultipart, head + "--b"), "400 the form is malformed: it ends too early");
}

// The application may catch the error of a part and read on.
TEST(Form, HasNoBytesThatItsSourceHasNotGiven)
{
    const std::string value(1000, 'v');
    const std::string body = Field("a", value) + kEnd;
    const size_t first = body.size() - 500;
    size_t calls = 0;
    MultipartReader reader("b0", [&](char* buffer, size_t) {
        const size_t call = calls++;
        if (call == 1)
            throw HttpError(400, "on purpose");
        const std::string_view part = call == 0   ? std::string_view(body).substr(0, first)
                                      : call == 2 ? std::string_view(body).substr(first)
                                                  : std::string_view();
        std::memcpy(buffer, part.data(), part.size());
        return part.size();
    });
    MultipartReader::Head head;
    ASSERT_TRUE(reader.next(head));
    std::string content;
    size_t errors = 0;
    for (bool isOver = false; !isOver;) {
        std::array<char, 100> piece;
        try {
            const size_t got = reader.read(piece.data(), piece.size());
            content.append(piece.data(), got);
            isOver = got == 0;
        } catch (const HttpError&) {
            ++errors;
        }
    }
    EXPECT_EQ(errors, 1u);
    EXPECT_EQ(content, value);
    EXPECT_FALSE(reader.next(head));
}

TEST(Form, RefusesBodiesThatEndEarly)
{
    const std::string body = Field("a", "1") + File("filename=\"x\"", "2") + kEnd;
    for (size_t size = 0; size + 2 < body.size(); ++size)
        EXPECT_EQ(Read(kMultipart, body.substr(0, size)).substr(0, 26),
                  "400 the form is malformed:")
            << size;
    EXPECT_EQ(Read(kMultipart, body.substr(0, body.size() - 2)), Read(kMultipart, body));
    for (const size_t piece : {size_t{1}, size_t{7}, body.size()}) {
        for (size_t size = 0; size + 2 < body.size(); ++size)
            EXPECT_EQ(FeedInPieces(body.substr(0, size), piece).substr(0, 26),
                      "400 the form is malformed:")
                << size;
    }
}

TEST(Form, RefusesPiecesBeforeTheEnd)
{
    FormLimits limits;
    limits.maxFields = 1;
    const auto none = [](const PartHead&) { return PartTaker(); };
    PartFeed many(kMultipart, none, limits);
    many.give(Field("a", "1"));
    // Known when a delimiter may no longer follow the head.
    EXPECT_THROW(many.give(Field("b", "a value")), HttpError);
    PartFeed malformed(kMultipart, none, limits);
    EXPECT_THROW(malformed.give("--b0 x\r\n"), HttpError);
    PartFeed type("text/plain", none, limits);
    EXPECT_THROW(type.give("a"), HttpError);
    PartFeed discarded(kMultipart, none, limits);
    discarded.give(Field("a", "1") + kEnd);
    discarded.give("epilogue");
    discarded.complete();
    EXPECT_EQ(FeedInPieces(Field("a", "1") + Field("b", "2") + kEnd, 1, limits),
              "413 the form has more than 1 fields");
}

TEST(Form, RefusesMalformedParts)
{
    const auto withHead = [](const std::string& head) {
        return Read(kMultipart, "--b0\r\n" + head + "\r\n\r\nx\r\n" + kEnd);
    };
    const std::string good = "Content-Disposition: form-data; name=a";
    EXPECT_EQ(withHead(good), "a=x\n");
    EXPECT_EQ(withHead("content-disposition:FORM-DATA;NAME = \"a\" "), "a=x\n");
    EXPECT_EQ(withHead(good + "\r\nContent-Transfer-Encoding: binary"), "a=x\n");
    const std::string heads[] = {
        "X: y",
        "Content-Disposition: attachment; name=a",
        "Content-Disposition: form-data",
        "Content-Disposition: form-data; filename=a",
        "Content-Disposition: form-data; name=a; name=b",
        "Content-Disposition: form-data; name=a; filename=x; NAME=\"a\"",
        good + "\r\n" + good,
        good + "\r\ncontent-disposition: form-data; name=b",
        "Content-Disposition:\r\n" + good,
        good + "\r\nno header",
        good + "\r\n folded",
        good + "\r\nContent-Transfer-Encoding: base64",
        good + "\r\nX: " + std::string(8200, 'x'),
    };
    for (const std::string& head : heads)
        EXPECT_EQ(withHead(head).substr(0, 26), "400 the form is malformed:") << head;
    EXPECT_EQ(Read(kMultipart, "--b0 x\r\n" + good + "\r\n\r\n" + kEnd).substr(0, 3), "400");
    EXPECT_EQ(Read(kMultipart, "--b0 \t\r\n" + good + "\r\n\r\nx\r\n" + kEnd), "a=x\n");
}

TEST(Form, RefusesTypesWithoutABoundary)
{
    for (const char* type :
         {"multipart/form-data", "multipart/form-data; boundary=",
          "multipart/form-data; boundary=\"a b \"", "multipart/form-data; boundary=a\"b",
          "multipart/form-data; boundary=12345678901234567890123456789012345678901"
          "234567890123456789012345678901"})
        EXPECT_EQ(Read(type, kEnd), "400 the form is malformed: its type has no valid boundary");
    EXPECT_EQ(Read("multipart/form-data; x=\"; boundary=y\"; Boundary=\"b0\"", kEnd), "");
    EXPECT_EQ(Read("text/plain", "a=1"), "415 the body must be a form");
    EXPECT_EQ(Read("", "a=1"), "415 the body must be a form");
}

TEST(Form, NamesFiles)
{
    const struct
    {
        const char* parameters;
        const char* name;
    } rows[] = {
        {"filename=\"a b.txt\"", "a b.txt"},
        {"filename=a.txt", "a.txt"},
        {"FileName=\"a.txt\"", "a.txt"},
        {"filename=\"a;b.txt\"", "a;b.txt"},
        {"filename=\"a\\\"b.txt\"", "a_b.txt"},
        {"filename=\"a%22b%41.txt\"", "a_b%41.txt"},
        {"filename=\"\xc3\xa4.txt\"", "\xc3\xa4.txt"},
        {"filename=\"x\"; filename*=UTF-8''%e2%82%ac%20rates.txt", "\xe2\x82\xac rates.txt"},
        {"filename*=utf-8'en'a.txt; filename=\"x\"", "a.txt"},
        {"filename=\"x\"; filename*=ISO-8859-1''a.txt", "x"},
        {"filename=\"x\"; filename*=UTF-8''..%2f..%2fetc%2fpasswd", "passwd"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Read(kMultipart, File(row.parameters, "1") + kEnd),
                  std::string("f:") + row.name + ":text/csv:1\n")
            << row.parameters;
}

TEST(Form, NeutralisesDangerousNames)
{
    const struct
    {
        std::string sent;
        const char* name;
    } rows[] = {
        {"../../etc/passwd", "passwd"},
        {"..\\\\..\\\\windows\\\\x.ini", "x.ini"},
        {"C:\\\\a.txt", "a.txt"},
        {"/etc/", "file"},
        {"", "file"},
        {".", "file"},
        {"..", "file"},
        {"...", "file"},
        {". .", "file"},
        {".htaccess", "htaccess"},
        {"a.txt. .", "a.txt"},
        {"a\tb\x7f", "ab"},
        {"a\xc2\x85"
         "b",
         "ab"},
        {"a\xff\xfe.txt", "a__.txt"},
        {"\xc0\xae\xc0\xae", "____"},
        {"a<b>:|?*", "a_b_____"},
        {"invoice\xe2\x80\xaegpj.exe", "invoicegpj.exe"},
        {"CON", "_CON"},
        {"nul.txt", "_nul.txt"},
        {"com1", "_com1"},
        {"com10", "com10"},
        {"a/\xe2\x80\xae", "file"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Read(kMultipart, File("filename=\"" + row.sent + "\"", "1") + kEnd),
                  std::string("f:") + row.name + ":text/csv:1\n")
            << row.sent;
    const std::string nul("a\0b", 3);
    EXPECT_EQ(Read(kMultipart, File("filename=\"" + nul + "\"", "1") + kEnd), "f:ab:text/csv:1\n");
}

TEST(Form, ShortensNamesAtTheEndOfACharacter)
{
    const auto nameOf = [](const std::string& sent) {
        const Form form =
            FormReader::read(kMultipart, File("filename=\"" + sent + "\"", "1") + kEnd, {});
        return form.files().front().fileName;
    };
    const std::string longest(255, 'x');
    EXPECT_EQ(nameOf(longest), longest);
    EXPECT_EQ(nameOf(longest + "x"), longest);
    EXPECT_EQ(nameOf(longest + ".txt"), std::string(251, 'x') + ".txt");
    std::string euros;
    for (int i = 0; i < 100; ++i)
        euros += "\xe2\x82\xac";
    EXPECT_EQ(nameOf(euros + ".txt"), euros.substr(0, 249) + ".txt");
    EXPECT_EQ(nameOf("con." + std::string(251, 'x')), "_con." + std::string(250, 'x'));
}

// A thousand fields of one byte must not take the memory of a thousand blocks.
TEST(Form, KeepsNoMoreMemoryThanItsFieldsHave)
{
    const Form form =
        FormReader::read(kMultipart, Field("n", "7") + File("filename=\"x\"", "1") + kEnd, {});
    EXPECT_LT(form.fields().front().value.capacity(), 100u);
    EXPECT_LT(form.files().front().content.capacity(), 100u);
}

TEST(Form, TakesNoFileForAFieldWithoutOne)
{
    EXPECT_EQ(Read(kMultipart, File("filename=\"\"", "") + kEnd), "");
    EXPECT_EQ(Read(kMultipart, File("filename=\"a\"", "") + kEnd), "f:a:text/csv:\n");
}

TEST(Form, FindsFieldsAndFiles)
{
    const Form form = FormReader::read(
        kMultipart, Field("n", "7") + Field("n", "8") + File("filename=\"x\"", "1") + kEnd, {});
    EXPECT_EQ(form.field("n").asInt(), 7);
    EXPECT_TRUE(form.field("m").empty());
    ASSERT_NE(form.file("f"), nullptr);
    EXPECT_EQ(form.file("f")->content, "1");
    EXPECT_EQ(form.file("n"), nullptr);
    EXPECT_EQ(Outcome([&] { return std::to_string(form.field("m").asInt()); }),
              "400 the form field \"m\" is missing");
}

TEST(Form, HasLimits)
{
    FormLimits limits;
    limits.maxFields = 3;
    limits.maxNameBytes = 4;
    EXPECT_EQ(Read(kEncoded, "a&b&c", limits), "a=\nb=\nc=\n");
    EXPECT_EQ(Read(kEncoded, "a&b&c&d", limits), "413 the form has more than 3 fields");
    EXPECT_EQ(Read(kEncoded, "abcd=12345", limits), "abcd=12345\n");
    EXPECT_EQ(Read(kEncoded, "abcde=1", limits),
              "413 the form has a field whose name is longer than 4 bytes");
    const std::string three = Field("a", "") + Field("b", "") + Field("c", "");
    EXPECT_EQ(Read(kMultipart, three + kEnd, limits), "a=\nb=\nc=\n");
    EXPECT_EQ(Read(kMultipart, three + Field("d", "") + kEnd, limits),
              "413 the form has more than 3 fields");
    EXPECT_EQ(Read(kMultipart, Field("abcde", "") + kEnd, limits),
              "413 the form has a field whose name is longer than 4 bytes");
}

class PartFiles : public ::testing::Test
{
protected:
    // Outcome of `saveTo` of each part.
    std::string save(const std::string& body, const std::string& path, uint64_t limit)
    {
        return Outcome([&] {
            std::string_view rest = body;
            const auto source = [&](char* buffer, size_t size) {
                const size_t part = std::min(size, rest.size());
                std::memcpy(buffer, rest.data(), part);
                rest.remove_prefix(part);
                return part;
            };
            std::string text;
            const auto take = [&](Part& part) {
                text += std::to_string(part.saveTo(path, limit)) + "\n";
            };
            FormReader::readParts(kMultipart, source, take, {});
            return text;
        });
    }

    size_t filesLeft() const
    {
        return static_cast<size_t>(
            std::distance(std::filesystem::directory_iterator(mDirectory.path()), {}));
    }

    std::string contentOf(const std::string& path) const
    {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    qv::tests::TemporaryDirectory mDirectory;
    const std::string mPath = mDirectory.path() / std::string(255, 'f');
};

TEST_F(PartFiles, AreWrittenWhole)
{
    const std::string content(200000, 'x');
    EXPECT_EQ(save(File("filename=\"a\"", content) + kEnd, mPath, content.size()), "200000\n");
    EXPECT_EQ(contentOf(mPath), content);
    EXPECT_EQ(save(File("filename=\"a\"", "") + kEnd, mPath, 0), "0\n");
    EXPECT_EQ(contentOf(mPath), "");
    EXPECT_EQ(filesLeft(), 1u);
}

TEST_F(PartFiles, LeaveNothingBehindWhenTheyAreRefused)
{
    EXPECT_EQ(save(File("filename=\"a\"", "12345") + kEnd, mPath, 4),
              "413 the file \"a\" is longer than 4 bytes");
    EXPECT_EQ(filesLeft(), 0u);
    EXPECT_EQ(save(File("filename=\"a\"", "12345"), mPath, 5).substr(0, 3), "400");
    EXPECT_EQ(filesLeft(), 0u);
    EXPECT_EQ(save(File("filename=\"a\"", "1") + kEnd, mPath, 5), "1\n");
    EXPECT_EQ(save(File("filename=\"a\"", "12345") + kEnd, mPath, 4).substr(0, 3), "413");
    EXPECT_EQ(contentOf(mPath), "1");
    const std::string noDirectory = mDirectory.path() / "none/file";
    EXPECT_THROW(save(File("filename=\"a\"", "1") + kEnd, noDirectory, 5), std::system_error);
}

}  // namespace
}  // namespace qv::kit
