#include "services/quillon/ActivityService.h"

#include "services/quillon/Arguments.h"
#include "services/quillon/Completion.h"

namespace vnt {
namespace {

constexpr uint64_t kRateUnitNs = 100'000'000;
constexpr uint64_t kLongestRate = 36'000; // an hour

} // namespace

ActivityService::ActivityService(Ref<ServiceChannel> channel, AccessGuard& guard)
    : _channel(std::move(channel)),
      _guard(guard)
{
    RecordSink& sink = *this;
    _census = std::make_unique<ProcessCensus>(sink);
}

Ref<Object> ActivityService::onCall(const std::string& selector, const Ref<Array>& arguments)
{
    if (selector == "setSamplingRate:")
        setSamplingRate(*arguments);
    else if (selector == "startSampling")
        start();
    else if (selector == "stopSampling")
        stop();
    else if (selector == kEnableCompletion)
        _reportsCompletion = true;
    else
        throwUnknownSelector(selector);
    return nullptr;
}

void ActivityService::setSamplingRate(const Array& arguments)
{
    const auto* rate = arguments.count() > 0 ? as<Number>(arguments.at(0).get()) : nullptr;
    if (!rate || rate->isBool() || rate->int64Value() < 1 || rate->uint64Value() > kLongestRate)
        throw Exception("NSInvalidArgumentException", "a census's rate is 1 to 36000 tenths of a second");
    if (_census)
        _census->setInterval(rate->uint64Value() * kRateUnitNs);
}

void ActivityService::start()
{
    _guard.demand(/*pid=*/-1, AccessGuard::Reach::kAnalyse); // it looks at everybody's processes
    const Status status = _census ? _census->start() : Status();
    if (!status.ok())
        reportProblem(status.message()); // it goes on with what it has
}

void ActivityService::stop()
{
    if (_census)
        _census->stop();
    if (_reportsCompletion)
        sendCompletion(*_channel, "quillon.server.services.activity");
}

void ActivityService::reportProblem(const std::string& text)
{
    (void)_channel->sendException(
        Exception("VntCensusError", "Process Census: " + text)); // a client that is gone needs none
}

void ActivityService::onClose() { _census = nullptr; }

} // namespace vnt
