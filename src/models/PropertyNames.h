// Display names of properties and of their values, the same for every model. Built once at
// library load and never changed, so any thread may read them without a lock, also before the
// SDK is initialised.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "orqsdk.h"

namespace orq {

// Name texts are string literals: they live as long as the library.
const std::map<int32_t, const char16_t*>& PropertyNames();
// Whether the application may set the property (all but Battery Level).
const std::map<int32_t, bool>& PropertyWritable();
// (property id, value) -> value name.
const std::map<std::pair<int32_t, int32_t>, const char16_t*>& PropertyValueNames();
// The inverse of PropertyValueNames.
const std::map<std::pair<int32_t, std::u16string>, int32_t>& PropertyValueByName();

// False also for an id that has no name.
bool IsPropertyWritable(int32_t propertyId);

// ORQ_OK with *name set to the property's name; ORQ_ERROR, *name untouched, for an unknown id
// (or a null name).
OrqResult GetPropertyName(int propertyId, OrqChar** name);
// ORQ_OK with *name set to the value's name; ORQ_ERROR, *name untouched, for an unknown pair
// (or a null name). The answer does not depend on any model.
OrqResult GetPropertyValName(int propertyId, int value, OrqChar** name);

}  // namespace orq
