#include "tests/service/ServiceTestSupport.hpp"

#include "quillet_capture/service/MultipartBody.hpp"

#include <gmock/gmock.h>

#include <sys/stat.h>

#include <regex>

namespace quillet {
namespace {

using test::FakeVeldane;
using test::await;
using test::awaitError;
using Answer = FakeVeldane::Answer;
using ClientError = VeldaneClient::ClientError;

struct UploadTest : test::ServiceFixture {
    std::filesystem::path audio(const std::string& name, const std::string& bytes)
    {
        auto file = home.path() / name;
        test::writeFile(file, bytes);
        return file;
    }

    // The boundary of a recorded upload, from its Content-Type header.
    static std::string boundaryOf(const FakeVeldane::Request& request)
    {
        auto type = request.header("Content-Type").value_or("");
        const std::string prefix = "multipart/form-data; boundary=";
        EXPECT_TRUE(type.starts_with(prefix)) << type;
        return type.substr(std::min(prefix.size(), type.size()));
    }
};

TEST_F(UploadTest, TheBodyIsByteExactWithEveryField)
{
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","task_id":"t-1"})", 202));
    std::string bytes("\x00\x01\xFF" "audio\r\n--", 12);
    auto file = audio("Memo 1.M4A", bytes);
    auto result = await(client.uploadAudio(file, "voice_memo", std::string("sv"), {"capture", "voice memo"},
                                           {{"device", "Mac"}, {"app", "quillet"}}));
    EXPECT_EQ(result.status, "queued");
    EXPECT_EQ(result.task_id, "t-1");
    EXPECT_FALSE(result.isDuplicate());

    auto requests = fake.requests("POST", "sources");
    ASSERT_EQ(requests.size(), 1u);
    const auto& request = requests[0];
    std::string b = boundaryOf(request);
    EXPECT_TRUE(std::regex_match(b, std::regex("----QuilletBoundary[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}")))
        << b;
    EXPECT_EQ(b.size(), 55u);
    std::string expected = "--" + b + "\r\n" +
                           "Content-Disposition: form-data; name=\"content_source\"\r\n\r\nvoice_memo\r\n"
                           "--" + b + "\r\n" +
                           "Content-Disposition: form-data; name=\"language\"\r\n\r\nsv\r\n"
                           "--" + b + "\r\n" +
                           "Content-Disposition: form-data; name=\"tags\"\r\n\r\ncapture,voice memo\r\n"
                           "--" + b + "\r\n" +
                           "Content-Disposition: form-data; name=\"content_source_metadata\"\r\n\r\n"
                           R"({"app":"quillet","device":"Mac"})" "\r\n"
                           "--" + b + "\r\n" +
                           "Content-Disposition: form-data; name=\"file\"; filename=\"Memo 1.M4A\"\r\n"
                           "Content-Type: audio/mp4\r\n\r\n" +
                           bytes + "\r\n--" + b + "--\r\n";
    EXPECT_EQ(request.body, expected);
    EXPECT_EQ(request.header("Content-Length"), std::to_string(expected.size()));
    EXPECT_EQ(request.header("Authorization"), std::string("Bearer ") + kToken);
    EXPECT_EQ(request.header("X-Client-Type"), "quillet-mac");
    EXPECT_EQ(request.header("X-Client-Version"), "0.0.0");
    EXPECT_EQ(request.header("X-Client-Platform"), "macos_menubar");
    EXPECT_EQ(request.headerCount("Content-Type"), 1u);
    EXPECT_FALSE(request.header("Expect"));
}

TEST_F(UploadTest, WithoutOptionalFieldsTheBodyHasTwoPartsAndEachUploadANewBoundary)
{
    fake.route("POST", "sources", [](const FakeVeldane::Request&) { return Answer::json(R"({"status":"duplicate_upload"})"); });
    auto file = audio("240501-093000.m4a", "abc");
    auto first = await(client.uploadAudio(file, "voice_memo"));
    EXPECT_TRUE(first.isDuplicate());
    EXPECT_FALSE(first.task_id);
    EXPECT_FALSE(first.cache_key);
    // A present but empty language is an empty part.
    await(client.uploadAudio(file, "voice_memo", std::string()));

    auto requests = fake.requests("POST", "sources");
    ASSERT_EQ(requests.size(), 2u);
    std::string b = boundaryOf(requests[0]);
    EXPECT_EQ(requests[0].body, "--" + b + "\r\nContent-Disposition: form-data; name=\"content_source\"\r\n\r\nvoice_memo\r\n" +
                                    "--" + b + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\"240501-093000.m4a\"\r\n" +
                                    "Content-Type: audio/mp4\r\n\r\nabc\r\n--" + b + "--\r\n");
    std::string b2 = boundaryOf(requests[1]);
    EXPECT_NE(b, b2);
    EXPECT_NE(requests[1].body.find("name=\"language\"\r\n\r\n\r\n--" + b2), std::string::npos);
}

TEST(MultipartBody, MediaTypesFollowTheExtensionInAnyCase)
{
    EXPECT_EQ(MultipartBody::mediaType("a/Memo 1.M4A"), "audio/mp4");
    EXPECT_EQ(MultipartBody::mediaType("x.mp3"), "audio/mpeg");
    EXPECT_EQ(MultipartBody::mediaType("x.WAV"), "audio/wav");
    EXPECT_EQ(MultipartBody::mediaType("x.aiff"), "audio/aiff");
    EXPECT_EQ(MultipartBody::mediaType("x.Aif"), "audio/aiff");
    EXPECT_EQ(MultipartBody::mediaType("x.caf"), "audio/x-caf");
    EXPECT_EQ(MultipartBody::mediaType("x.ogg"), "application/octet-stream");
    EXPECT_EQ(MultipartBody::mediaType("noextension"), "application/octet-stream");
    // Metadata that cannot be serialised (not UTF-8) is left out; the upload goes on.
    MultipartBody::Fields fields{"s", std::nullopt, {}, {{"bad", "\xFF"}}};
    auto head = MultipartBody::head("B", fields, "f.m4a", "audio/mp4");
    EXPECT_EQ(head.find("content_source_metadata"), std::string::npos);
    EXPECT_NE(head.find("name=\"file\""), std::string::npos);
}

TEST(MultipartBody, StreamsTheSameBytesInAnyPieceSize)
{
    test::ScratchDir dir;
    std::string contents;
    for (int i = 0; i < 100000; ++i) {
        contents += static_cast<char>(i * 7);
    }
    test::writeFile(dir.path() / "a.wav", contents);
    MultipartBody::Fields fields{"voice_memo", std::string("en"), {"a"}, {}};
    std::string whole = MultipartBody::head("B", fields, "a.wav", "audio/wav") + contents + MultipartBody::trailer("B");
    for (std::size_t piece : {1u, 7u, 4096u, 1u << 20}) {
        MultipartBody body("B", fields, dir.path() / "a.wav");
        EXPECT_EQ(body.size(), whole.size());
        std::string sent;
        std::vector<char> buffer(piece);
        while (std::size_t n = body.read(buffer.data(), buffer.size())) {
            sent.append(buffer.data(), n);
        }
        EXPECT_EQ(sent, whole) << piece;
        // A retry on a new connection starts over.
        ASSERT_TRUE(body.rewind());
        std::size_t again = 0;
        while (std::size_t n = body.read(buffer.data(), buffer.size())) {
            again += n;
        }
        EXPECT_EQ(again, whole.size());
    }
    MultipartBody body("B", fields, dir.path() / "a.wav");
    std::filesystem::resize_file(dir.path() / "a.wav", 10);
    std::vector<char> buffer(1 << 20);
    EXPECT_THROW(body.read(buffer.data(), buffer.size()), std::system_error);
    EXPECT_THROW(MultipartBody("B", fields, dir.path() / "missing.wav"), std::system_error);
}

TEST_F(UploadTest, ChecksComeFirstAndSendNothing)
{
    auto file = audio("a.m4a", "x");
    ASSERT_TRUE(Keychain::setDeviceToken(std::nullopt));
    // Without a token even an unreadable file is reported as the missing token.
    auto error = awaitError<ClientError>(client.uploadAudio(home.path() / "missing.m4a", "voice_memo"));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), ClientError::Kind::missingCredentials);

    ASSERT_TRUE(Keychain::setDeviceToken(std::string(kToken)));
    error = awaitError<ClientError>(client.uploadAudio(home.path() / "missing.m4a", "voice_memo"));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->errorDescription(), "Cannot read audio file: " + (home.path() / "missing.m4a").string());

    if (geteuid() != 0) {
        ::chmod(file.c_str(), 0);
        error = awaitError<ClientError>(client.uploadAudio(file, "voice_memo"));
        ASSERT_TRUE(error);
        EXPECT_EQ(error->kind(), ClientError::Kind::audioFileNotReadable);
    }
    EXPECT_EQ(fake.requestCount(), 0u);
    EXPECT_FALSE(VeldaneClient::uploadGate().busy());
}

TEST_F(UploadTest, AnswersThatDoNotDecodeNameTheFullErrorAndTheBodysStart)
{
    auto file = audio("a.m4a", "x");
    fake.enqueue("POST", "sources", Answer::json(R"({"task_id":"t"})"));
    auto error = awaitError<ClientError>(client.uploadAudio(file, "voice_memo"));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind(), ClientError::Kind::malformedResponse);
    EXPECT_TRUE(error->detail().starts_with("upload: keyNotFound(")) << error->detail();
    EXPECT_NE(error->detail().find("status"), std::string::npos);
    EXPECT_TRUE(error->detail().ends_with(R"( -- body: {"task_id":"t"})")) << error->detail();

    // 299 bytes of ASCII, then a two-byte character cut by the 300-byte limit.
    std::string body = "{\"status\": 1, \"pad\":\"" + std::string(299 - 21, 'p') + "\xC3\xA9\"}";
    fake.enqueue("POST", "sources", Answer::json(body));
    error = awaitError<ClientError>(client.uploadAudio(file, "voice_memo"));
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->detail().starts_with("upload: typeMismatch(")) << error->detail();
    EXPECT_TRUE(error->detail().ends_with(" -- body: <binary>")) << error->detail();

    std::string longText = "<html>" + std::string(400, 'h');
    fake.enqueue("POST", "sources", Answer::text(longText, 200, "text/html"));
    error = awaitError<ClientError>(client.uploadAudio(file, "voice_memo"));
    ASSERT_TRUE(error);
    EXPECT_TRUE(error->detail().ends_with(" -- body: " + longText.substr(0, 300))) << error->detail();

    fake.enqueue("POST", "sources", Answer::json(R"({"plan":"pro"})", 402));
    error = awaitError<ClientError>(client.uploadAudio(file, "voice_memo"));
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "Veldane refused this request for your plan (402, needs pro)");
    EXPECT_TRUE(test::eventually([] { return !VeldaneClient::uploadGate().busy(); }));
}

TEST_F(UploadTest, UploadsTakeTurnsInArrivalOrder)
{
    auto& gate = VeldaneClient::uploadGate();
    ASSERT_FALSE(gate.busy());
    auto hold = std::make_shared<FakeVeldane::Hold>();
    Answer first = Answer::json(R"({"status":"queued"})");
    first.hold = hold;
    fake.enqueue("POST", "sources", first);
    fake.route("POST", "sources", [](const FakeVeldane::Request&) { return Answer::json(R"({"status":"queued"})"); });
    auto file = audio("a.m4a", "audio");

    std::vector<std::future<VeldaneClient::UploadResult>> uploads;
    auto start = [&](const std::string& name) {
        uploads.push_back(asio::co_spawn(runtime::utilityExecutor(), client.uploadAudio(file, name), asio::use_future));
    };
    start("first");
    ASSERT_TRUE(fake.waitForRequests(1));
    // Three more arrive while the first is on the wire; each must be waiting before the next starts.
    for (std::size_t i = 1; i <= 3; ++i) {
        start("waiter" + std::to_string(i));
        ASSERT_TRUE(test::eventually([&] { return gate.waiting() == i; }));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(fake.requestCount(), 1u);

    hold->release();
    for (auto& upload : uploads) {
        ASSERT_EQ(upload.wait_for(std::chrono::seconds(20)), std::future_status::ready);
        EXPECT_EQ(upload.get().status, "queued");
    }
    std::vector<std::string> order;
    for (const auto& request : fake.requests("POST", "sources")) {
        auto at = request.body.find("\r\n\r\n");
        order.push_back(request.body.substr(at + 4, request.body.find("\r\n", at + 4) - at - 4));
    }
    EXPECT_THAT(order, ::testing::ElementsAre("first", "waiter1", "waiter2", "waiter3"));
    EXPECT_EQ(fake.maxConcurrent("sources"), 1u);
    EXPECT_TRUE(test::eventually([&] { return !gate.busy() && gate.waiting() == 0; }));
}

TEST_F(UploadTest, TheGateIsReleasedAfterEveryKindOfFailure)
{
    auto file = audio("a.m4a", "audio");
    VeldaneTimeouts brief = quickTimeouts();
    brief.upload = 0.3;
    VeldaneClient impatient(fake.baseURL(), clock, brief);
    Answer slow = Answer::json(R"({"status":"queued"})");
    slow.delaySeconds = 3;
    fake.enqueue("POST", "sources", slow);
    EXPECT_THROW(await(impatient.uploadAudio(file, "voice_memo")), HttpTransport::TransportError);
    fake.enqueue("POST", "sources", Answer::text("boom", 500));
    EXPECT_THROW(await(client.uploadAudio(file, "voice_memo")), ClientError);
    Answer cut = Answer::json(R"({"status":"queued"})");
    cut.cut = FakeVeldane::Cut::midBody;
    fake.enqueue("POST", "sources", cut);
    EXPECT_THROW(await(client.uploadAudio(file, "voice_memo")), HttpTransport::TransportError);
    fake.enqueue("POST", "sources", Answer::json(R"({"status":"queued","cache_key":"k9","title":"T","message":"m"})"));
    auto result = await(client.uploadAudio(file, "voice_memo"));
    EXPECT_EQ(result.cache_key, "k9");
    EXPECT_EQ(result.title, "T");
    EXPECT_TRUE(test::eventually([] { return !VeldaneClient::uploadGate().busy(); }));
}

} // namespace
} // namespace quillet
