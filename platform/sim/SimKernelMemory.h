#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/KernelMemory.h"

namespace quorvix::sim {

// Scripted kernel memory, extensions and symbols. Counts what is listed, made and released. One thread.
class SimKernelMemory : public KernelMemory {
public:
    KernelMemoryInformation memory;
    std::vector<KernelExtension> extensions;
    std::map<std::uint64_t, std::string> symbols;
    bool givesResolver = true;

    KernelMemoryInformation information() override {
        ++informationCalls_;
        return memory;
    }
    std::vector<KernelExtension> loadedExtensions() override {
        ++extensionListings_;
        return extensions;
    }
    std::unique_ptr<SymbolResolver> makeSymbolResolver() override {
        if (!givesResolver) return nullptr;
        ++resolversMade_;
        return std::make_unique<Resolver>(*this);
    }

    std::uint64_t informationCalls() const { return informationCalls_; }
    std::uint64_t extensionListings() const { return extensionListings_; }
    std::uint64_t resolversMade() const { return resolversMade_; }
    std::uint64_t resolversReleased() const { return resolversReleased_; }

private:
    class Resolver final : public SymbolResolver {
    public:
        explicit Resolver(SimKernelMemory& owner) : owner_(owner) {}
        Resolver(const Resolver&) = delete;
        Resolver& operator=(const Resolver&) = delete;
        ~Resolver() override { ++owner_.resolversReleased_; }
        std::optional<std::string> symbolAt(std::uint64_t address) override {
            const auto found = owner_.symbols.find(address);
            if (found == owner_.symbols.end()) return std::nullopt;
            return found->second;
        }

    private:
        SimKernelMemory& owner_;
    };

    std::uint64_t informationCalls_ = 0;
    std::uint64_t extensionListings_ = 0;
    std::uint64_t resolversMade_ = 0;
    std::uint64_t resolversReleased_ = 0;
};

}  // namespace quorvix::sim
