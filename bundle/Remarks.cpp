#include "bundle/Remarks.h"

#include <algorithm>

namespace vnt {

namespace {
/// Nobody reads more.
constexpr size_t kMaxRemarks = 100;
} // namespace

void Remarks::add(std::string text)
{
    if (std::find(_texts.begin(), _texts.end(), text) != _texts.end())
        return;
    if (_texts.size() < kMaxRemarks)
        _texts.push_back(std::move(text));
    else
        ++_omitted;
}

} // namespace vnt
