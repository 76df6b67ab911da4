#include "core/wire/device_records.hpp"

#include "core/base/errors.hpp"
#include "core/wire/json_fields.hpp"

namespace virela {

RegisterResult RegisterResult::decode(std::string_view bytes) {
    const auto value = wire::parse(bytes);
    const auto& object = wire::requireObject(value, "registration reply");
    RegisterResult result;
    result.deviceId = wire::requireString(object, "deviceId");
    result.deviceToken = wire::requireString(object, "deviceToken");
    result.supportCode = wire::optionalString(object, "supportCode");
    result.consentCopy = wire::requireString(object, "consentCopy");
    auto mode = captureModeFromRaw(wire::requireString(object, "captureMode"));
    if (!mode) throw DecodingError("\"captureMode\" is not a known capture mode");
    result.captureMode = *mode;
    result.isTest = wire::requireBool(object, "isTest");
    return result;
}

ResetResult ResetResult::decode(std::string_view bytes) {
    const auto value = wire::parse(bytes);
    const auto& object = wire::requireObject(value, "reset reply");
    return ResetResult{wire::optionalString(object, "supportCode")};
}

}  // namespace virela
