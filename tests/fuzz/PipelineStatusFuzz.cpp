// Feeds arbitrary bytes to VeldaneClient::PipelineStatus::decode as the answer of the status
// endpoint. Properties besides "no crash, no sanitizer report": only DecodeError escapes;
// exactly the answers that conform to the model decode (see ServiceAnswerOracle.hpp); every
// level and field holds what the answer holds, and transcription() is status.transcription.
#include "quillet_capture/service/VeldaneClient.hpp"
#include "tests/fuzz/ServiceAnswerOracle.hpp"

#include <cstdint>

using namespace quillet;
using fuzz::check;
using Status = VeldaneClient::PipelineStatus;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string_view body(reinterpret_cast<const char*>(data), size);
    auto document = fuzz::parsed(body);

    fuzz::Oracle oracle;
    Status expected;
    if (!document) {
        oracle.conforms = false;
    } else if (const auto* object = oracle.object(*document)) {
        if (const auto* stages = oracle.child(object, "status", false)) {
            expected.status.emplace();
            if (const auto* stage = oracle.child(stages, "transcription", false)) {
                Status::TranscriptionStage transcription;
                transcription.status = oracle.string(stage, "status", false);
                transcription.model = oracle.string(stage, "model", false);
                transcription.duration = oracle.number(stage, "duration", false);
                transcription.word_count = oracle.integer(stage, "word_count", false);
                expected.status->transcription = transcription;
            }
        }
    }

    auto result = fuzz::decodeChecked<Status>(body, document.has_value(), oracle.conforms, Status::decode);
    if (!result) {
        return 0;
    }
    check(result->status.has_value() == expected.status.has_value(), "status is there when the answer has it");
    auto got = result->transcription();
    auto want = expected.transcription();
    check(got.has_value() == want.has_value(), "transcription is there when the answer has it");
    check(!result->status || result->status->transcription.has_value() == got.has_value(),
          "transcription() is status.transcription");
    if (got) {
        check(got->status == want->status, "transcription.status");
        check(got->model == want->model, "transcription.model");
        check(got->duration == want->duration, "transcription.duration");
        check(got->word_count == want->word_count, "transcription.word_count");
    }
    return 0;
}
