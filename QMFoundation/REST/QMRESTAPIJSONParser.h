// QMRESTAPIJSONParser: JSON data received from a REST service, decoded into
// one model object or a list of them (see QMRESTAPIModel.h).
//
//   platform::ErrorRef error;
//   auto repositories = QMRESTAPIJSONParser::parseObjectsFromJSONData(body, repositoryClass, &error);
//   if (!repositories) ... error says why the data was not JSON ...
//
// Contract:
// - Missing data, a missing class, or a class that is not a model class are
//   programming errors (parameter assertions), never errors.
// - Data that is not JSON (invalid UTF-8 included), and JSON whose top level
//   is not the expected kind (an object for one model, an array for a list),
//   give nothing and an error in the platform's Cocoa domain, code 3840.
// - In a list, elements that are not JSON objects are left out.
// - Stateless: any thread.
#pragma once

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Runtime/Class.h"
#include "QMFoundation/REST/QMRESTAPIModel.h"

#include <optional>
#include <vector>

class QMRESTAPIJSONParser {
public:
    [[nodiscard]] static QMRESTAPIModelRef parseObjectFromJSONData(const std::optional<platform::Data>& jsonData,
                                                                   const platform::Class* modelClass,
                                                                   platform::ErrorRef* error = nullptr);
    [[nodiscard]] static std::optional<std::vector<QMRESTAPIModelRef>> parseObjectsFromJSONData(
        const std::optional<platform::Data>& jsonData, const platform::Class* modelClass,
        platform::ErrorRef* error = nullptr);
};
