// SPDX-License-Identifier: MIT
#include <vd/BonjourResponder.h>

#include "responder/ServiceController.h"

namespace vd {

BonjourResponder* BonjourResponder::instance = nullptr;
const QString BonjourResponder::BONJOUR_RESPONDER_NAME(QLatin1String("mdnsd"));

BonjourResponder::BonjourResponder() {}

BonjourResponder::~BonjourResponder()
{
    // A QThread that is destroyed while it runs aborts the process.
    wait();
}

void BonjourResponder::run() {}

bool BonjourResponder::isServiceRunning()
{
    const ServiceController controller(BONJOUR_RESPONDER_NAME);
    return controller.isInstalled() && controller.isRunning();
}

bool BonjourResponder::startResponderService()
{
    const ServiceController controller(BONJOUR_RESPONDER_NAME);
    return controller.isInstalled() && (controller.isRunning() || controller.start());
}

bool BonjourResponder::startResponderThread()
{
    if (!instance) {
        instance = new BonjourResponder;
        instance->setObjectName(QLatin1String("BonjourResponderThread"));
    }
    instance->start(InheritPriority);
    return true;
}

void BonjourResponder::stopResponderThread() {}

bool BonjourResponder::startResponder()
{
    return startResponderService() || startResponderThread();
}

} // namespace vd
