#include "CoreKit/KeyCodes.h"

#include "CoreKit/KeyboardLayout.h"

#include <mutex>

namespace tavrick::KeyCodes {

namespace {

std::mutex installMutex;
std::shared_ptr<const KeyboardLayoutCache> installed;

} // namespace

const std::map<std::uint16_t, std::string_view>& specialNames() {
    static const std::map<std::uint16_t, std::string_view> names = {
        {36, "↩"},  {48, "⇥"},  {49, "Space"}, {51, "⌫"},  {53, "⎋"},  {71, "⌧"},  {76, "⌤"},
        {117, "⌦"}, {115, "↖"}, {119, "↘"},    {116, "⇞"}, {121, "⇟"}, {123, "←"}, {124, "→"},
        {125, "↓"}, {126, "↑"}, {122, "F1"},   {120, "F2"}, {99, "F3"},  {118, "F4"}, {96, "F5"},
        {97, "F6"}, {98, "F7"}, {100, "F8"},   {101, "F9"}, {109, "F10"}, {103, "F11"}, {111, "F12"},
        {105, "F13"}, {107, "F14"}, {113, "F15"}, {106, "F16"}, {64, "F17"}, {79, "F18"}, {80, "F19"},
        {90, "F20"},
    };
    return names;
}

const std::map<std::uint16_t, std::string_view>& ansiNames() {
    static const std::map<std::uint16_t, std::string_view> names = {
        {0, "A"},  {1, "S"},  {2, "D"},  {3, "F"},  {4, "H"},  {5, "G"},  {6, "Z"},  {7, "X"},
        {8, "C"},  {9, "V"},  {11, "B"}, {12, "Q"}, {13, "W"}, {14, "E"}, {15, "R"}, {16, "Y"},
        {17, "T"}, {18, "1"}, {19, "2"}, {20, "3"}, {21, "4"}, {22, "6"}, {23, "5"}, {24, "="},
        {25, "9"}, {26, "7"}, {27, "-"}, {28, "8"}, {29, "0"}, {30, "]"}, {31, "O"}, {32, "U"},
        {33, "["}, {34, "I"}, {35, "P"}, {37, "L"}, {38, "J"}, {39, "'"}, {40, "K"}, {41, ";"},
        {42, "\\"}, {43, ","}, {44, "/"}, {45, "N"}, {46, "M"}, {47, "."}, {50, "`"},
    };
    return names;
}

std::string name(std::uint16_t keyCode, const KeyboardLayoutCache* layout) {
    const auto& special = specialNames();
    if (auto it = special.find(keyCode); it != special.end()) return std::string(it->second);
    if (layout) {
        if (auto character = layout->character(keyCode)) return *character;
    }
    const auto& ansi = ansiNames();
    if (auto it = ansi.find(keyCode); it != ansi.end()) return std::string(it->second);
    return "Key " + std::to_string(keyCode);
}

std::string name(std::uint16_t keyCode) {
    return name(keyCode, installedLayoutCache().get());
}

void installLayoutCache(std::shared_ptr<const KeyboardLayoutCache> cache) {
    std::lock_guard lock(installMutex);
    installed = std::move(cache);
}

std::shared_ptr<const KeyboardLayoutCache> installedLayoutCache() {
    std::lock_guard lock(installMutex);
    return installed;
}

} // namespace tavrick::KeyCodes
