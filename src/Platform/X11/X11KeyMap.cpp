#include "Platform/X11/X11KeyMap.h"

#include <xkbcommon/xkbcommon-keysyms.h>

#include <algorithm>
#include <utility>

namespace tavrick::X11KeyMap {

namespace {

// Letters are listed by their lower-case symbol; upper case is folded before the lookup.
constexpr std::pair<std::uint32_t, std::uint16_t> table[] = {
    {XKB_KEY_a, 0},       {XKB_KEY_s, 1},          {XKB_KEY_d, 2},           {XKB_KEY_f, 3},
    {XKB_KEY_h, 4},       {XKB_KEY_g, 5},          {XKB_KEY_z, 6},           {XKB_KEY_x, 7},
    {XKB_KEY_c, 8},       {XKB_KEY_v, 9},          {XKB_KEY_b, 11},          {XKB_KEY_q, 12},
    {XKB_KEY_w, 13},      {XKB_KEY_e, 14},         {XKB_KEY_r, 15},          {XKB_KEY_y, 16},
    {XKB_KEY_t, 17},      {XKB_KEY_1, 18},         {XKB_KEY_2, 19},          {XKB_KEY_3, 20},
    {XKB_KEY_4, 21},      {XKB_KEY_6, 22},         {XKB_KEY_5, 23},          {XKB_KEY_equal, 24},
    {XKB_KEY_9, 25},      {XKB_KEY_7, 26},         {XKB_KEY_minus, 27},      {XKB_KEY_8, 28},
    {XKB_KEY_0, 29},      {XKB_KEY_bracketright, 30}, {XKB_KEY_o, 31},       {XKB_KEY_u, 32},
    {XKB_KEY_bracketleft, 33}, {XKB_KEY_i, 34},    {XKB_KEY_p, 35},          {XKB_KEY_Return, 36},
    {XKB_KEY_l, 37},      {XKB_KEY_j, 38},         {XKB_KEY_apostrophe, 39}, {XKB_KEY_k, 40},
    {XKB_KEY_semicolon, 41}, {XKB_KEY_backslash, 42}, {XKB_KEY_comma, 43},   {XKB_KEY_slash, 44},
    {XKB_KEY_n, 45},      {XKB_KEY_m, 46},         {XKB_KEY_period, 47},     {XKB_KEY_Tab, 48},
    {XKB_KEY_space, 49},  {XKB_KEY_grave, 50},     {XKB_KEY_BackSpace, 51},  {XKB_KEY_Escape, 53},
    {XKB_KEY_KP_Decimal, 65}, {XKB_KEY_KP_Multiply, 67}, {XKB_KEY_KP_Add, 69}, {XKB_KEY_Clear, 71},
    {XKB_KEY_KP_Divide, 75}, {XKB_KEY_KP_Enter, 76}, {XKB_KEY_KP_Subtract, 78}, {XKB_KEY_KP_Equal, 81},
    {XKB_KEY_KP_0, 82},   {XKB_KEY_KP_1, 83},      {XKB_KEY_KP_2, 84},       {XKB_KEY_KP_3, 85},
    {XKB_KEY_KP_4, 86},   {XKB_KEY_KP_5, 87},      {XKB_KEY_KP_6, 88},       {XKB_KEY_KP_7, 89},
    {XKB_KEY_KP_8, 91},   {XKB_KEY_KP_9, 92},      {XKB_KEY_F5, 96},         {XKB_KEY_F6, 97},
    {XKB_KEY_F7, 98},     {XKB_KEY_F3, 99},        {XKB_KEY_F8, 100},        {XKB_KEY_F9, 101},
    {XKB_KEY_F11, 103},   {XKB_KEY_F13, 105},      {XKB_KEY_F16, 106},       {XKB_KEY_F14, 107},
    {XKB_KEY_F10, 109},   {XKB_KEY_F12, 111},      {XKB_KEY_F15, 113},       {XKB_KEY_Insert, 114},
    {XKB_KEY_Home, 115},  {XKB_KEY_Prior, 116},    {XKB_KEY_Delete, 117},    {XKB_KEY_F4, 118},
    {XKB_KEY_End, 119},   {XKB_KEY_F2, 120},       {XKB_KEY_Next, 121},      {XKB_KEY_F1, 122},
    {XKB_KEY_Left, 123},  {XKB_KEY_Right, 124},    {XKB_KEY_Down, 125},      {XKB_KEY_Up, 126},
    {XKB_KEY_F17, 64},    {XKB_KEY_F18, 79},       {XKB_KEY_F19, 80},        {XKB_KEY_F20, 90},
    // Modifier keys, for flags-changed events.
    {XKB_KEY_Super_R, 54}, {XKB_KEY_Super_L, 55},  {XKB_KEY_Shift_L, 56},    {XKB_KEY_Caps_Lock, 57},
    {XKB_KEY_Alt_L, 58},  {XKB_KEY_Control_L, 59}, {XKB_KEY_Shift_R, 60},    {XKB_KEY_Alt_R, 61},
    {XKB_KEY_Control_R, 62},
};

std::uint32_t fold(std::uint32_t keysym) {
    if (keysym >= XKB_KEY_A && keysym <= XKB_KEY_Z) return keysym - XKB_KEY_A + XKB_KEY_a;
    return keysym;
}

} // namespace

std::optional<std::uint16_t> keyCode(std::uint32_t keysym) {
    const auto folded = fold(keysym);
    for (const auto& [sym, code] : table) {
        if (sym == folded) return code;
    }
    return std::nullopt;
}

std::optional<std::uint32_t> keysym(std::uint16_t keyCode) {
    for (const auto& [sym, code] : table) {
        if (code == keyCode) return sym;
    }
    return std::nullopt;
}

std::uint64_t modifierFlag(std::uint32_t keysym) {
    switch (keysym) {
    case XKB_KEY_Shift_L:
    case XKB_KEY_Shift_R: return EventFlags::shift;
    case XKB_KEY_Control_L:
    case XKB_KEY_Control_R: return EventFlags::control;
    case XKB_KEY_Alt_L:
    case XKB_KEY_Alt_R:
    case XKB_KEY_Meta_L:
    case XKB_KEY_Meta_R: return EventFlags::option;
    case XKB_KEY_Super_L:
    case XKB_KEY_Super_R: return EventFlags::command;
    case XKB_KEY_Caps_Lock: return EventFlags::capsLock;
    default: return 0;
    }
}

ModifierMasks masksFromMapping(const std::vector<std::vector<std::uint32_t>>& symbolsPerModifier) {
    ModifierMasks masks{.alt = 0, .super = 0, .numLock = 0, .scrollLock = 0};
    // Shift, Lock and Control (the first three) are fixed; only Mod1 to Mod5 are assigned.
    for (std::size_t index = 3; index < symbolsPerModifier.size() && index < 8; ++index) {
        const auto bit = static_cast<std::uint16_t>(1u << index);
        for (auto sym : symbolsPerModifier[index]) {
            switch (sym) {
            case XKB_KEY_Alt_L:
            case XKB_KEY_Alt_R:
            case XKB_KEY_Meta_L:
            case XKB_KEY_Meta_R:
                if (!masks.alt) masks.alt = bit;
                break;
            case XKB_KEY_Super_L:
            case XKB_KEY_Super_R:
                if (!masks.super) masks.super = bit;
                break;
            case XKB_KEY_Num_Lock:
                if (!masks.numLock) masks.numLock = bit;
                break;
            case XKB_KEY_Scroll_Lock:
                if (!masks.scrollLock) masks.scrollLock = bit;
                break;
            default: break;
            }
        }
    }
    return masks;
}

Modifiers modifiers(std::uint16_t state, const ModifierMasks& masks) {
    Modifiers result;
    if (state & shiftMask) result.insert(Modifiers::shift);
    if (state & controlMask) result.insert(Modifiers::control);
    if (masks.alt && (state & masks.alt)) result.insert(Modifiers::option);
    if (masks.super && (state & masks.super)) result.insert(Modifiers::command);
    return result;
}

std::optional<std::uint16_t> state(Modifiers modifiers, const ModifierMasks& masks) {
    if (modifiers.contains(Modifiers::function)) return std::nullopt;
    std::uint16_t result = 0;
    if (modifiers.contains(Modifiers::shift)) result |= shiftMask;
    if (modifiers.contains(Modifiers::control)) result |= controlMask;
    if (modifiers.contains(Modifiers::option)) {
        if (!masks.alt) return std::nullopt;
        result |= masks.alt;
    }
    if (modifiers.contains(Modifiers::command)) {
        if (!masks.super) return std::nullopt;
        result |= masks.super;
    }
    return result;
}

std::uint64_t eventFlags(std::uint16_t state, const ModifierMasks& masks) {
    auto flags = modifiers(state, masks).cgFlags();
    if (state & lockMask) flags |= EventFlags::capsLock;
    return flags;
}

std::vector<std::uint16_t> lockCombinations(const ModifierMasks& masks) {
    std::vector<std::uint16_t> locks{lockMask};
    for (auto mask : {masks.numLock, masks.scrollLock}) {
        if (mask && std::find(locks.begin(), locks.end(), mask) == locks.end()) locks.push_back(mask);
    }
    std::vector<std::uint16_t> result;
    for (std::uint32_t subset = 0; subset < (1u << locks.size()); ++subset) {
        std::uint16_t combined = 0;
        for (std::size_t bit = 0; bit < locks.size(); ++bit) {
            if (subset & (1u << bit)) combined |= locks[bit];
        }
        result.push_back(combined);
    }
    return result;
}

} // namespace tavrick::X11KeyMap
