#include "platform/foundation/Object.h"

#include <cstdio>

namespace vnt {

std::string Object::description() const
{
    char text[40];
    std::snprintf(text, sizeof text, "<object %p>", static_cast<const void*>(this));
    return text;
}

bool equal(const Object* a, const Object* b) { return a == b || (a && b && a->isEqual(*b)); }

} // namespace vnt
