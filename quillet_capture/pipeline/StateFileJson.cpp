#include "quillet_capture/pipeline/StateFileJson.hpp"

#include "quillet_capture/config/Log.hpp"
#include "quillet_capture/util/AtomicFile.hpp"

namespace quillet::StateFileJson {

std::optional<nlohmann::json> read(const std::filesystem::path& file)
{
    auto text = readWholeFile(file);
    if (!text) {
        return std::nullopt;
    }
    auto json = nlohmann::json::parse(*text, nullptr, false);
    if (!json.is_object()) {
        return std::nullopt;
    }
    return json;
}

void write(const std::filesystem::path& file, const nlohmann::json& document)
{
    try {
        std::error_code ignored;
        std::filesystem::create_directories(file.parent_path(), ignored);
        writeFileAtomically(file, document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n",
                            0600);
    } catch (const std::exception& error) {
        rlog("[quillet] capture: cannot write %@: %@", file.string(), error.what());
    }
}

} // namespace quillet::StateFileJson
