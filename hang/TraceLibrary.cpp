#include "hang/TraceLibrary.h"

#include <array>

#include "platform/Platform.h"
#include "service/Log.h"

namespace quorvix {

namespace {

constexpr std::string_view kLibraryPath = "/usr/lib/libswivex.dylib";

// The text that an exported key constant points to.
const char* optionKey(void* library, const char* symbol) {
    const void* const address = platform().libraries.symbol(library, symbol);
    return address ? *static_cast<const char* const*>(address) : nullptr;
}

}  // namespace

bool TraceLibrary::usable() {
    std::call_once(loaded_, [this] { loadSwivexLibrary(); });
    return dump_ != nullptr;
}

void TraceLibrary::loadSwivexLibrary() {
    LibraryLoader& loader = platform().libraries;
    void* const library = loader.open(kLibraryPath);
    if (!library) {
        quorvixLog().standard("libswivex.dylib is not present.");
        return;
    }
    dump_ = reinterpret_cast<swivex_dump_function*>(loader.symbol(library, "swivex_dump_output_with_options_sync"));
    reasonStringKey_ = optionKey(library, "SWXDumpOptions_ReasonString");
    noSymbolicateKey_ = optionKey(library, "SWXDumpOptions_NoSymbolicate");
    minTimestampKey_ = optionKey(library, "SWXDumpOptions_MinTimestamp");
    maxTimestampKey_ = optionKey(library, "SWXDumpOptions_MaxTimestamp");
}

bool TraceLibrary::writeSwivexData(int fd, std::uint64_t startTime, std::uint64_t endTime,
                                   const std::string& reasonText) {
    if (!usable()) {
        quorvixLog().standard("Swivex dump symbol is missing!");
        return false;
    }
    std::array<swivex_option, 4> options{};
    std::size_t count = 0;
    const auto add = [&](const char* key, swivex_option_type type) -> swivex_option* {
        if (!key) return nullptr;
        swivex_option& option = options[count++];
        option.key = key;
        option.type = type;
        return &option;
    };
    if (auto* option = add(noSymbolicateKey_, SWIVEX_OPTION_BOOL)) option->value.boolean = true;
    if (auto* option = add(reasonStringKey_, SWIVEX_OPTION_STRING)) option->value.text = reasonText.c_str();
    if (auto* option = add(minTimestampKey_, SWIVEX_OPTION_UINT64)) option->value.number = startTime;
    if (auto* option = add(maxTimestampKey_, SWIVEX_OPTION_UINT64)) option->value.number = endTime;
    const swivex_options all{count, options.data()};
    return dump_(fd, &all);
}

}  // namespace quorvix
