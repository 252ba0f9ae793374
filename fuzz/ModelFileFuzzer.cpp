// Any bytes as a model file, as a bundle from outside may hold one: reading
// gives a model or an error naming the place, never a crash or a hang. A model
// that reads writes back into text that reads as the same model.
#include "Platform/ObjectGraph/ManagedObjectModel.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    platform::ErrorRef error;
    const auto model = platform::ManagedObjectModel::modelWithJSONText(text, "fuzz.momd", &error);
    if (!model) {
        if (!error) {
            std::abort();
        }
        return 0;
    }
    const auto again = platform::ManagedObjectModel::modelWithJSONText(model->JSONText(), "again.momd");
    if (!again || again->versionHash() != model->versionHash() || again->JSONText() != model->JSONText()) {
        std::abort();
    }
    return 0;
}
