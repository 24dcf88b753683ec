// SPDX-License-Identifier: MIT

// vd-responder-probe [OPTION]... OPERATION...
// Options: --name SERVICE, --question-ms N, --start-ms N, --settling-ms N, --interrupted
//
// Does what each operation says, without an application object, and prints a JSON object a line:
// {"operation": ..., "result": ..., "ms": ...}

#include <vd/BonjourResponder.h>
#include <vd/LogQt.h>

#include "responder/ServiceController.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <string>

#include <sys/time.h>

namespace {

using vd::ServiceController;

struct Responder : vd::BonjourResponder
{
    static std::string threadName()
    {
        return instance ? '"' + instance->objectName().toStdString() + '"' : "null";
    }
};

struct Settings
{
    QString name = QStringLiteral("mdnsd");
    std::chrono::milliseconds questionTime = ServiceController::QUESTION_TIME;
    std::chrono::milliseconds startTime = ServiceController::START_TIME;
    std::chrono::milliseconds settlingTime = ServiceController::SETTLING_TIME;
};

std::string text(bool result)
{
    return result ? "true" : "false";
}

std::string text(ServiceController::Status status)
{
    using Status = ServiceController::Status;
    static const std::map<Status, std::string> names = {
        {Status::Running, "Running"},
        {Status::Starting, "Starting"},
        {Status::Stopped, "Stopped"},
        {Status::NotInstalled, "NotInstalled"},
        {Status::Masked, "Masked"},
        {Status::Broken, "Broken"},
        {Status::NotAllowed, "NotAllowed"},
        {Status::StartRefused, "StartRefused"},
        {Status::StartFailed, "StartFailed"},
        {Status::StillStarting, "StillStarting"},
        {Status::QuestionRefused, "QuestionRefused"},
        {Status::NoServiceManager, "NoServiceManager"},
        {Status::NoAnswer, "NoAnswer"},
        {Status::Unsupported, "Unsupported"},
    };
    return '"' + names.at(status) + '"';
}

std::string numberOfOpenFiles()
{
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::to_string(std::distance(begin(files), end(files)));
}

std::map<std::string, std::function<std::string()>> operationsOn(const ServiceController& controller)
{
    return {
        {"isInstalled", [&] { return text(controller.isInstalled()); }},
        {"isRunning", [&] { return text(controller.isRunning()); }},
        {"start", [&] { return text(controller.start()); }},
        {"status", [&] { return text(controller.status()); }},
        {"tryStart", [&] { return text(controller.tryStart()); }},
        {"isServiceRunning", [] { return text(Responder::isServiceRunning()); }},
        {"startResponderService", [] { return text(Responder::startResponderService()); }},
        {"startResponderThread", [] { return text(Responder::startResponderThread()); }},
        {"startResponder", [] { return text(Responder::startResponder()); }},
        {"threadName", [] { return Responder::threadName(); }},
        {"openFiles", [] { return numberOfOpenFiles(); }},
    };
}

// Every millisecond a signal, and no system call is taken up again after it.
void interruptSystemCalls()
{
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    const itimerval everyMillisecond = {{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &everyMillisecond, nullptr);
}

int readOptions(int argc, char** argv, Settings& settings)
{
    int next = 1;
    for (; next < argc && std::strncmp(argv[next], "--", 2) == 0; ++next) {
        const std::string option = argv[next];
        if (option == "--interrupted")
            interruptSystemCalls();
        else if (option == "--name" && next + 1 < argc)
            settings.name = QString::fromUtf8(argv[++next]);
        else if (option == "--question-ms" && next + 1 < argc)
            settings.questionTime = std::chrono::milliseconds(std::atoi(argv[++next]));
        else if (option == "--start-ms" && next + 1 < argc)
            settings.startTime = std::chrono::milliseconds(std::atoi(argv[++next]));
        else if (option == "--settling-ms" && next + 1 < argc)
            settings.settlingTime = std::chrono::milliseconds(std::atoi(argv[++next]));
        else
            return -1;
    }
    return next;
}

} // namespace

int main(int argc, char** argv)
{
    // What is logged appears, and disturbs what is expected of the output.
    vd::LogQt::setLogLevel(1);
    Settings settings;
    const int first = readOptions(argc, argv, settings);
    if (first < 0) {
        std::cerr << "vd-responder-probe: an option is not understood\n";
        return 2;
    }
    const ServiceController controller(settings.name, settings.questionTime, settings.startTime,
                                       settings.settlingTime);
    const auto operations = operationsOn(controller);
    for (int i = first; i < argc; ++i) {
        const auto operation = operations.find(argv[i]);
        if (operation == operations.end()) {
            std::cerr << "vd-responder-probe: no such operation: " << argv[i] << "\n";
            return 2;
        }
        const auto begin = std::chrono::steady_clock::now();
        const std::string result = operation->second();
        const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - begin;
        std::cout << R"({"operation": ")" << operation->first << R"(", "result": )" << result << R"(, "ms": )"
                  << spent.count() << "}" << std::endl;
    }
    return 0;
}
