#include "AIKit/AIClient.h"
#include "Platform/Linux/CurlHTTPTransport.h"
#include "Support/LocalHTTPServer.h"

#include <gtest/gtest.h>


#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

namespace tavrick {
namespace {

using tavrick::testing::LocalServer;

class CurlTransportTest : public ::testing::Test {
protected:
    CurlTransportTest() { keychain.set("sk-secret-123", "api-key-custom"); }
    InMemorySecretStore secrets;
    Keychain keychain{secrets};
    CurlHTTPTransport transport;
};

TEST_F(CurlTransportTest, AnAnswerFromALocalServerAndTheKeyOnlyInItsHeader) {
    LocalServer server(LocalServer::respond(200, R"({"choices":[{"message":{"content":"Bonjour"}}]})"));
    AIClient client(AIProvider::Case::custom, "local", server.base(), 1024, transport, keychain);
    auto result = client.ask("Translate.", "hello");
    ASSERT_TRUE(std::holds_alternative<std::string>(result)) << std::get<AIError>(result).description();
    EXPECT_EQ(std::get<std::string>(result), "Bonjour");
    auto request = server.received();
    EXPECT_EQ(request.rfind("POST /v1/chat/completions HTTP/1.1\r\n", 0), 0u) << request;
    EXPECT_NE(request.find("Authorization: Bearer sk-secret-123\r\n"), std::string::npos);
    EXPECT_NE(request.find("Content-Type: application/json\r\n"), std::string::npos);
}

TEST_F(CurlTransportTest, FailuresOfTheServerInTheirWords) {
    struct Case {
        const char* name;
        LocalServer::Reply reply;
        std::string description;
    };
    const std::vector<Case> cases{
        {"401 hides the body", LocalServer::respond(401, R"({"error":{"message":"key sk-secret-123 bad"}})"),
         "The key was rejected (401). Check it in Settings › Selection."},
        {"429", LocalServer::respond(429, R"({"error":{"message":"quota"}})"), "Rate limited or out of credit (429): quota"},
        {"500 not JSON", LocalServer::respond(500, "<h1>down</h1>"), "The API returned 500: <h1>down</h1>"},
        {"empty 200", LocalServer::respond(200, ""), "The model returned nothing."},
        {"200 not JSON", LocalServer::respond(200, "hello"), "The model returned nothing."},
        {"closed mid-body",
         [](int client) {
             LocalServer::write(client, "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"choices\":");
         },
         ""},
    };
    for (const auto& c : cases) {
        LocalServer server(c.reply);
        AIClient client(AIProvider::Case::custom, "m", server.base(), 1024, transport, keychain);
        auto result = client.ask("I", "the selected text");
        ASSERT_TRUE(std::holds_alternative<AIError>(result)) << c.name;
        const auto& error = std::get<AIError>(result);
        if (c.description.empty()) {
            EXPECT_EQ(error.kind, AIError::Case::transport) << c.name;
            EXPECT_FALSE(error.description().empty());
        } else {
            EXPECT_EQ(error.description(), c.description) << c.name;
        }
        EXPECT_EQ(error.description().find("sk-secret"), std::string::npos) << c.name;
        EXPECT_EQ(error.description().find("the selected text"), std::string::npos) << c.name;
    }
}

TEST_F(CurlTransportTest, ASlowServerTimesOutAndACancelEndsTheWait) {
    std::atomic<bool> release{false};
    LocalServer server([&](int client) {
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        LocalServer::write(client, "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n{}");
    });
    HTTPClientRequest request;
    request.url = server.base() + "/models";
    request.timeoutSeconds = 0.3;
    auto result = transport.send(request, nullptr);
    ASSERT_TRUE(std::holds_alternative<std::string>(result));
    EXPECT_EQ(std::get<std::string>(result), "The request timed out.");

    auto cancelled = std::make_shared<std::atomic<bool>>(false);
    request.timeoutSeconds = 30;
    std::thread canceller([cancelled] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        cancelled->store(true);
    });
    auto abandoned = transport.send(request, cancelled);
    canceller.join();
    release = true;
    ASSERT_TRUE(std::holds_alternative<std::string>(abandoned));
    EXPECT_EQ(std::get<std::string>(abandoned), "The request was cancelled.");
}

TEST_F(CurlTransportTest, NobodyListeningIsATransportFailure) {
    int port = 0;
    {
        LocalServer server(LocalServer::respond(200, "{}"));
        port = std::stoi(server.base().substr(17));
    }
    AIClient client(AIProvider::Case::custom, "m", "http://127.0.0.1:" + std::to_string(port) + "/v1", 1024, transport,
                    keychain);
    auto result = client.ask("I", "T");
    ASSERT_TRUE(std::holds_alternative<AIError>(result));
    EXPECT_EQ(std::get<AIError>(result).kind, AIError::Case::transport);
}

} // namespace
} // namespace tavrick
