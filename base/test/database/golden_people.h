// golden_people.h: what the golden database holds. Frozen: the database in golden/database was
// written from exactly this, and every build must find exactly this in it.
#pragma once

#include <cstdint>
#include <string>

#include "support/person_table.h"

namespace golden {

constexpr const char* DATABASE = "database";
constexpr const char* TABLE = "People";
constexpr uint32_t VERSION = 5;
constexpr uint32_t MAGIC = 0xca222222;
constexpr const char* FORMAT = "i;s;s;i;q;u;d;b;";
constexpr const char* FIELDS =
    "Id, Name;Indexed;Unique;Case Sensitive, Town;Indexed, Age;Indexed, Number;Indexed, "
    "Key;Indexed;Unique, Photo, Alive";
constexpr uint32_t SHORT = 330; // persons with short names, ids 1 to 330
constexpr uint32_t ALL = 334;   // and four with names of 8000 characters
constexpr uint32_t DELETED[] = {333, 334};

// Person `n`, from 1 on, which is its id.
inline Person Make(uint32_t n)
{
    Person person;
    person.id = n;
    const std::string digits = std::to_string(1000 + n);
    person.name = n <= SHORT ? "name " + digits + std::string(50, '.') : "~" + digits;
    if (n > SHORT)
        person.name->resize(8000, '~');
    // Upper and lower case by turns: this index does not tell them apart.
    person.town = std::string(n % 2 ? "Town " : "tOWN ") + std::to_string(n % 17);
    person.age = static_cast<int32_t>(n * 37 % 101) - 20;
    person.number = (static_cast<int64_t>(n % 7) - 3) * 0x100000001 * n;
    for (size_t i = 0; i < person.key.size(); ++i)
        person.key[i] = static_cast<uint8_t>(n * 73 + i * 11 + (i == 1 ? n >> 8 : 0));
    person.photo = std::string(n % 10, static_cast<char>(n));
    person.alive = n % 3 == 0;
    return person;
}

inline People Model()
{
    People model;
    for (uint32_t n = 1; n <= ALL; ++n)
        model[n] = Make(n);
    for (uint32_t id : DELETED)
        model.erase(id);
    return model;
}

} // namespace golden
