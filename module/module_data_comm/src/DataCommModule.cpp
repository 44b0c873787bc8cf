#include "DataCommModule.h"

#include "OutputFactory.h"
#include "ReportTask.h"
#include "sdk/StrUtils.h"

#include <Poco/Util/Application.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Engine {

DataCommModule::DataCommModule() : Framework::Module("data_comm_module") {}

DataCommModule::~DataCommModule() = default;

int DataCommModule::Init() {
    const OutputFactory::Settings& settings = Poco::Util::Application::instance().config();
    std::vector<std::string> outputs;
    SDK::StrUtils::Split(settings.getString("report.output", "stdout"), ",", outputs);
    OutputFactory factory(settings);
    m_task = new ReportTask;
    for (const std::string& output : outputs) {
        std::unique_ptr<AlarmSink> sink = factory.Make(output);
        if (sink == nullptr) {
            m_task = nullptr;
            return -1;
        }
        m_task->AddSink(std::move(sink));
    }
    factory.WarnOfForgottenAlarms();
    return RegisterTask(m_task, false);
}

int DataCommModule::UnInit() {
    Framework::Module::UnInit();
    m_task = nullptr;
    return 0;
}

}  // namespace Engine
