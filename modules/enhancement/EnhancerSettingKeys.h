#pragma once

// The settings of OmbrixImageEnhancer by name: one table of
// {key, setter, range} that every front end shares (the command line's
// --set KEY=VALUE and its help, scripting bindings), so that a key means the
// same setter everywhere.
//
//   tnr.control_gain=7   ->  enhancer.tnrSetCGain(7)
//
// Keys are "<module>.<parameter>", modules tnr, spr, snr, hist and peak.
// Values are whole decimal integers; what a setter does with a value outside
// its range (clamp it, or keep the old value) is the setter's own rule, told
// by `outside`.

#include <string>
#include <vector>

#include "KroLibExport.h"
#include "OmbrixImageEnhancer.h"

namespace velmor {
namespace kro {

struct KROLIB_EXPORT EnhancerSettingKey {
    const char* key;         // "tnr.control_gain"
    const char* setterName;  // "tnrSetCGain"
    void (OmbrixImageEnhancer::*setter)(int);
    int low;                 // the values the setter takes as they are
    int high;
    const char* outside;     // what the setter does with other values ("" when none exist)
    const char* meaning;     // one line for help texts
};

// Every key, grouped by module in pipeline order.
KROLIB_EXPORT const std::vector<EnhancerSettingKey>& enhancerSettingKeys();

// The entry of `key`, or null.
KROLIB_EXPORT const EnhancerSettingKey* findEnhancerSettingKey(const std::string& key);

struct EnhancerSetting {
    const EnhancerSettingKey* key = nullptr;
    int value = 0;
};

// Parses "KEY=VALUE". Returns "" and fills `setting`, or the problem: a
// missing '=', a key without module, an unknown key, a value that is not a
// whole decimal integer of the int range.
KROLIB_EXPORT std::string parseEnhancerSetting(const std::string& text, EnhancerSetting& setting);

// Calls the setting's setter on `enhancer`.
KROLIB_EXPORT void applyEnhancerSetting(OmbrixImageEnhancer& enhancer, const EnhancerSetting& setting);

// "0 to 31", or "any" for the full int range.
KROLIB_EXPORT std::string describeRange(const EnhancerSettingKey& key);

} // namespace kro
} // namespace velmor
