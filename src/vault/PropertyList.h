#pragma once
// Plain property lists (XML or binary, through libplist) to and from Values.
// Keyed archives are a layer above this (KeyedArchive.h).
#include <optional>

#include "toolkit/QVError.h"
#include "vault/Value.h"

namespace qv {

// Parses XML or binary property-list bytes. nullopt with error 1001 on bad input,
// including input the property-list guard refuses (PropertyListGuard.h).
std::optional<Value> QVPropertyListFromData(const Bytes& data, QVError* error);
// The same for a file that is XML by definition: a binary property list is refused.
std::optional<Value> QVPropertyListFromXMLData(const Bytes& data, QVError* error);
// Serialises strings, numbers, data, dates, arrays and dictionaries with string keys.
// nullopt if the value holds anything else, or a date beyond the 32-bit seconds
// from 2001 that a property list holds (before 1933 or after 2069).
std::optional<Bytes> QVPropertyListToXML(const Value& value);

} // namespace qv
