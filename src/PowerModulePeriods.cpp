// Period scheduling and period values (in progress).
#include <stdexcept>

#include "PowerModuleImpl.h"

void PowerModule::PowerModuleImpl::scheduleForPeriodCalculation(int, unsigned long long*, int*, double*, bool*) {
    throw std::logic_error("period values are not available yet");
}
void PowerModule::PowerModuleImpl::scheduleForPeriodCalculationFromZeroCrossing(const std::vector<ZeroCrossingInterval>&) {
    throw std::logic_error("period values are not available yet");
}
void PowerModule::PowerModuleImpl::getPeriodResults(int* count, bool* more, PowerResultsPeriod**) {
    *count = 0;
    *more = false;
}
