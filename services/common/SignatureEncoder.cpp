#include "services/common/SignatureEncoder.h"

#include "records/Signature.h"

namespace vnt {

SignatureEncoder::SignatureEncoder(pid_t pid, std::string_view name, std::string_view executable, bool is64Bit)
    : _encoded(MutableDictionary::create()),
      _images(MutableArray::create())
{
    _encoded->set(signature::kVersionKey, Number::withInt(signature::kVersion));
    _encoded->set(signature::kPid, Number::withInt(pid));
    _encoded->set(signature::kName, String::create(name));
    if (!executable.empty())
        _encoded->set(signature::kExecutable, String::create(executable));
    _encoded->set(signature::kIs64Bit, Number::withBool(is64Bit));
}

void SignatureEncoder::addImage(const SignatureImage& image)
{
    auto entry = MutableDictionary::create();
    if (image.exec) {
        entry->set(signature::kImageExec, Number::withUint64(image.timeNs));
        _images->append(entry);
        return;
    }
    entry->set(signature::kImageStart, Number::withUint64(image.start));
    entry->set(signature::kImageSize, Number::withUint64(image.sizeBytes));
    entry->set(signature::kImageOffset, Number::withUint64(image.fileOffset));
    entry->set(signature::kImagePath, String::create(image.path));
    if (!image.buildId.empty())
        entry->set(signature::kImageBuildId, String::create(image.buildId));
    if (image.timeNs != 0)
        entry->set(signature::kImageTime, Number::withUint64(image.timeNs));
    _images->append(entry);
}

Ref<Dictionary> SignatureEncoder::take()
{
    _encoded->set(signature::kImages, _images);
    return _encoded;
}

} // namespace vnt
