// Builds the tagged container in memory. Every operation takes a buffer from malloc and returns it,
// moved if need be: the caller goes on with what is returned and frees it in the end. Null, the
// buffer freed, when memory does not suffice; null goes in as null comes out, so callers check
// once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "model/tag_reader.h"

namespace ravu {

std::uint8_t* make_dictionary();
std::uint8_t* make_list();
std::uint8_t* make_text(std::string_view characters);
std::uint8_t* make_int(std::int32_t value);
std::uint8_t* make_float(float value);
std::uint8_t* make_floats(std::span<const float> values);
std::uint8_t* make_bytes(std::span<const std::uint8_t> bytes);

// The same element again, with its type and payload as they are.
std::uint8_t* make_copy(const Tag& tag);

// A dictionary element around one element without a key: floats, or four integers.
std::uint8_t* make_small_floats(std::span<const float> values);
std::uint8_t* make_small_ints(std::span<const std::int32_t> values);

// Appends a key and its value to a dictionary; frees the value.
std::uint8_t* add(std::uint8_t* dictionary, std::string_view key, std::uint8_t* value);

// Appends an element to a list; frees the element.
std::uint8_t* append(std::uint8_t* list, std::uint8_t* child);

// Header and payload of a finished element.
std::size_t element_bytes(const std::uint8_t* element);

}  // namespace ravu
