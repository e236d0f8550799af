#include "WebServerKit/HTTPExchange.h"
#include "WebServerKit/StaticFiles.h"

#include "Support/TempDir.h"
#include "Support/Unprivileged.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include <fcntl.h>
#include <unistd.h>

namespace tavrick {
namespace {

namespace fs = std::filesystem;
using Kind = StaticFiles::Resolution::Kind;
using testing::TempDir;
using testing::writeFile;

TEST(HTTPRequestLine, ParsesOnlyWellFormedFirstLines) {
    const std::pair<const char*, std::optional<HTTPRequestLine>> cases[] = {
        {"GET / HTTP/1.1\r\n\r\n", HTTPRequestLine{"GET", "/"}},
        {"HEAD /a/b?x=1 HTTP/1.0\r\nHost: x\r\n\r\n", HTTPRequestLine{"HEAD", "/a/b?x=1"}},
        {"GET   /spaced    HTTP/1.1\r\n", HTTPRequestLine{"GET", "/spaced"}},
        {"POST / HTTP/1.1 extra\r\n", HTTPRequestLine{"POST", "/"}},
        {"GET / HTTP/1.1", HTTPRequestLine{"GET", "/"}},
        {"GET /\r\n\r\n", std::nullopt},
        {"GET / HT", std::nullopt},
        {"GET index.html HTTP/1.1\r\n", std::nullopt},
        {"GET / FTP/1.1\r\n", std::nullopt},
        {"\r\nGET / HTTP/1.1\r\n", std::nullopt},
        {"", std::nullopt},
        {"GET\t/\tHTTP/1.1\r\n", std::nullopt},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(HTTPRequestLine::parse(text), expected) << text;
}

TEST(StaticFiles, PercentDecodingRefusesBrokenEscapesAndNul) {
    EXPECT_EQ(StaticFiles::percentDecode("/a%20b%2F%2e"), "/a b/.");
    EXPECT_EQ(StaticFiles::percentDecode("/%252e"), "/%2e");
    for (const char* bad : {"/%", "/%2", "/%zz", "/a%00b", "/%0"}) {
        EXPECT_EQ(StaticFiles::percentDecode(bad), std::nullopt) << bad;
    }
}

class Site : public ::testing::Test {
protected:
    TempDir temp;
    fs::path root = temp / "site";
    void SetUp() override {
        fs::create_directories(root / "docs");
        fs::create_directories(root / "bare");
        fs::create_directories(temp / "site-old");
        writeFile(root / "index.html", "<h1>home</h1>");
        writeFile(root / "docs" / "index.htm", "docs");
        writeFile(root / "a b.txt", "spaced");
        writeFile(temp / "secret", "secret");
        writeFile(temp / "site-old" / "x.txt", "old");
        writeFile(root / "bare" / "z.css", "z");
        fs::create_symlink(temp / "secret", root / "out-link");
        fs::create_symlink(temp / "site-old", root / "out-dir");
        fs::create_symlink(root / "a b.txt", root / "in-link");
    }
};

TEST_F(Site, ResolvesEveryWayInAndRefusesEveryWayOut) {
    struct Case {
        const char* path;
        Kind kind;
        const char* file;  // relative to the root, for files and folders
    } cases[] = {
        {"/", Kind::file, "index.html"},
        {"/docs", Kind::file, "docs/index.htm"},
        {"/docs/", Kind::file, "docs/index.htm"},
        {"/bare/", Kind::directory, "bare"},
        {"/a%20b.txt?download=1", Kind::file, "a b.txt"},
        {"/in-link", Kind::file, "a b.txt"},
        {"/docs/../a%20b.txt", Kind::file, "a b.txt"},
        {"//index.html", Kind::file, "index.html"},
        {"/missing", Kind::notFound, nullptr},
        {"/%252e%252e/secret", Kind::notFound, nullptr},
        {"/%00/../secret", Kind::notFound, nullptr},
        {"/%zz", Kind::notFound, nullptr},
        {"/../secret", Kind::forbidden, nullptr},
        {"/..", Kind::forbidden, nullptr},
        {"/%2e%2e/secret", Kind::forbidden, nullptr},
        {"/%2E%2E%2Fsecret", Kind::forbidden, nullptr},
        {"/docs/../../secret", Kind::forbidden, nullptr},
        {"/nothing/../../secret", Kind::forbidden, nullptr},
        {"/../site-old/x.txt", Kind::forbidden, nullptr},
        {"/../site/index.html", Kind::file, "index.html"},
        {"/out-link", Kind::forbidden, nullptr},
        {"/out-dir/x.txt", Kind::forbidden, nullptr},
    };
    for (const auto& c : cases) {
        auto result = StaticFiles::resolve(c.path, root);
        EXPECT_EQ(result.kind, c.kind) << c.path;
        if (c.file) {
            EXPECT_EQ(result.url, fs::canonical(root / c.file)) << c.path;
        }
    }
}

TEST_F(Site, RootGivenThroughALinkStillServesItsOwnFiles) {
    fs::create_symlink(root, temp / "via");
    EXPECT_EQ(StaticFiles::resolve("/a%20b.txt", temp / "via").kind, Kind::file);
    EXPECT_EQ(StaticFiles::resolve("/../secret", temp / "via").kind, Kind::forbidden);
}

TEST(StaticFiles, ContentTypesByLowerCasedExtension) {
    const std::pair<const char*, const char*> cases[] = {
        {"a.HTML", "text/html; charset=utf-8"}, {"a.htm", "text/html; charset=utf-8"},
        {"a.mjs", "text/javascript; charset=utf-8"}, {"a.js.map", "application/json; charset=utf-8"},
        {"a.TXT", "text/plain; charset=utf-8"}, {"a.jpg", "image/jpeg"}, {"a.woff2", "font/woff2"},
        {"a.svg", "image/svg+xml"}, {"README", "application/octet-stream"}, {"a.tar.gz", "application/octet-stream"},
        {".bashrc", "application/octet-stream"},
    };
    for (auto [name, type] : cases) EXPECT_EQ(StaticFiles::contentType(name), type) << name;
}

TEST(StaticFiles, ListingEscapesNamesAndEncodesLinks) {
    TempDir temp;
    fs::create_directories(temp / "sub dir");
    writeFile(temp / "b\"<i>&'.txt", "");
    writeFile(temp / "a.txt", "");
    std::string page = StaticFiles::listing("/x%20y/", temp.path());
    EXPECT_EQ(page,
              "<!doctype html><meta charset=utf-8><title>/x y/</title>"
              "<style>body{font:14px -apple-system,system-ui;margin:2rem;max-width:40rem}"
              "a{display:block;padding:.25rem 0}</style><h1>/x y/</h1>\n"
              "<a href=\"/x%20y/a.txt\">a.txt</a>\n"
              "<a href=\"/x%20y/b%22%3Ci%3E%26%27.txt\">b&quot;&lt;i&gt;&amp;&#39;.txt</a>\n"
              "<a href=\"/x%20y/sub%20dir/\">sub dir/</a>\n");
    EXPECT_NE(StaticFiles::listing("/<b>", temp.path()).find("<title>/&lt;b&gt;</title>"), std::string::npos);
}

TEST_F(Site, AnswersCarryTheExactHeadAndBody) {
    auto head = [](const std::string& status, const std::string& type, int length) {
        return "HTTP/1.1 " + status + "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(length) +
               "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
    };
    const std::string text = "text/plain; charset=utf-8";
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"GET / HTTP/1.1\r\n\r\n", head("200 OK", "text/html; charset=utf-8", 13), ""},
        {"HEAD /a%20b.txt HTTP/1.1\r\n\r\n", head("200 OK", text, 6), ""},
        {"POST / HTTP/1.1\r\n\r\n", head("405 Method Not Allowed", text, 17), "Only GET and HEAD"},
        {"GET /\r\n\r\n", head("400 Bad Request", text, 11), "Bad request"},
        {"GET /../secret HTTP/1.1\r\n\r\n", head("403 Forbidden", text, 18), "Outside the folder"},
        {"HEAD /nope HTTP/1.1\r\n\r\n", head("404 Not Found", text, 9), ""},
    };
    // The one-step open beneath the folder answers exactly as the full resolution does.
    int folder = ::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    for (int descriptor : {-1, folder}) {
        for (const auto& [request, expectedHead, body] : cases) {
            auto response = respondTo(request, root, descriptor);
            EXPECT_EQ(response.head, expectedHead) << request << " " << descriptor;
            EXPECT_EQ(response.body, body) << request << " " << descriptor;
        }
        EXPECT_TRUE(respondTo("GET /out-link HTTP/1.1\r\n\r\n", root, descriptor).refusedPath);
        EXPECT_EQ(respondTo("GET /in-link HTTP/1.1\r\n\r\n", root, descriptor).fileLength, 6u);
        EXPECT_EQ(respondTo("GET /docs HTTP/1.1\r\n\r\n", root, descriptor).fileLength, 4u);
    }
    ::close(folder);
    auto file = respondTo("GET /index.html HTTP/1.1\r\n\r\n", root);
    EXPECT_GE(file.fileDescriptor, 0);
    EXPECT_EQ(file.fileLength, 13u);
    EXPECT_EQ(respondTo("HEAD / HTTP/1.1\r\n\r\n", root).fileDescriptor, -1);
}

TEST_F(Site, AnUnreadableFileIsRefusedNotServedEmpty) {
    fs::permissions(root / "a b.txt", fs::perms::none);
    // As an ordinary user, whom the permissions stop even when the tests run as root.
    int status = testing::runUnprivileged(temp.path(), [&] {
        auto response = respondTo("GET /a%20b.txt HTTP/1.1\r\n\r\n", root);
        return response.status == 403 && response.body == "Not readable" && response.fileDescriptor < 0 ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
}

} // namespace
} // namespace tavrick
