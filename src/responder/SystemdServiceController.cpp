// SPDX-License-Identifier: MIT
#include "responder/ServiceController.h"

#include "responder/SystemdManager.h"
#include "support/QtCompat.h"

#include <algorithm>

namespace vd {

namespace {

bool isNameCharacter(char character)
{
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z')
           || (character >= '0' && character <= '9')
           || std::string(":_.\\@-").find(character) != std::string::npos;
}

/** The name of the service's unit; empty when no service can have that name. */
std::string unitOfService(const QString& name)
{
    const size_t longest = 200;
    const QByteArray bytes = bytesFromText(name);
    const std::string text(bytes.constData(), static_cast<size_t>(bytes.size()));
    if (text.empty() || text.size() > longest || !std::all_of(text.begin(), text.end(), isNameCharacter))
        return std::string();
    return text + ".service";
}

} // namespace

ServiceController::Status ServiceController::status() const
{
    const std::string unit = unitOfService(name);
    return unit.empty() ? Status::NotInstalled : SystemdManager(questionTime).status(unit);
}

ServiceController::Status ServiceController::tryStart() const
{
    const std::string unit = unitOfService(name);
    return unit.empty() ? Status::NotInstalled : SystemdManager(startTime).start(unit, settlingTime);
}

} // namespace vd
