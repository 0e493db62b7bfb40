#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <memory>

#include "platform/linux/SharedMemory.h"
#include "platform/sim/SimSharedMemory.h"
#include "tests/support/MessageSocket.h"

namespace quorvix::region_memory_contract {
namespace {

// A harness: the service, a client's memory of some length, and the client's own view of it.
struct LinuxWorld {
    struct Memory {
        Memory(linuxos::MappedRegions& regions, std::uint64_t bytes)
            : descriptor(tests::makeMemory(bytes)), object(regions, descriptor.get()), length(bytes) {
            void* mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor.get(), 0);
            if (mapped != MAP_FAILED) view = static_cast<std::uint8_t*>(mapped);
        }
        ~Memory() {
            if (view) munmap(view, length);
        }
        SharedMemoryMapping map() { return object.map(); }

        tests::Descriptor descriptor;
        linuxos::DescriptorMemory object;
        std::uint64_t length;
        std::uint8_t* view = nullptr;
    };
    std::unique_ptr<Memory> makeMemory(std::uint64_t length) { return std::make_unique<Memory>(regions, length); }

    linuxos::MappedRegions regions;
};

struct SimWorld {
    struct Memory {
        Memory(sim::SimRegionMemory& regions, std::uint64_t bytes)
            : object(regions, bytes), view(object.bytes().data()) {}
        SharedMemoryMapping map() { return object.map(); }

        sim::SimSharedMemory object;
        std::uint8_t* view;
    };
    std::unique_ptr<Memory> makeMemory(std::uint64_t length) { return std::make_unique<Memory>(regions, length); }

    sim::SimRegionMemory regions;
};

// What a guarded access does; plain data, since a fault leaves it on the spot.
struct Touch {
    volatile std::uint8_t* at;
    std::uint8_t read = 0;
    bool store = false;
    bool finished = false;

    static void run(void* context) noexcept {
        auto& touch = *static_cast<Touch*>(context);
        touch.read = *touch.at;
        if (touch.store) *touch.at = 0xFF;
        touch.finished = true;
    }
};

template <class World>
class RegionMemoryContract : public testing::Test {
protected:
    bool touch(const SharedMemoryMapping& mapping, std::int64_t offset, bool store = false) {
        last_ = Touch{.at = static_cast<std::uint8_t*>(mapping.address) + offset, .store = store};
        return world_.regions.guarded(mapping.address, Touch::run, &last_);
    }
    static constexpr std::int64_t kPage = 4096;

    World world_;
    Touch last_{.at = nullptr};
};

using Worlds = testing::Types<LinuxWorld, SimWorld>;
TYPED_TEST_SUITE(RegionMemoryContract, Worlds);

TYPED_TEST(RegionMemoryContract, ReadsWhatTheClientWroteAndStoresWhatTheClientSees) {
    const auto memory = this->world_.makeMemory(100);
    memory->view[99] = 42;
    const SharedMemoryMapping mapping = memory->map();
    EXPECT_EQ(mapping.length, 100u);
    EXPECT_TRUE(this->touch(mapping, 99, true));
    EXPECT_EQ(this->last_.read, 42);
    EXPECT_EQ(memory->view[99], 0xFF);
    this->world_.regions.unmap(mapping.address, mapping.length);
}

TYPED_TEST(RegionMemoryContract, LengthsFromOneByteToOneMebibyteAreMapped) {
    for (const std::uint64_t length : {1u, 4095u, 4096u, 4097u, 1024u * 1024u}) {
        const auto memory = this->world_.makeMemory(length);
        const SharedMemoryMapping mapping = memory->map();
        EXPECT_EQ(mapping.length, length);
        EXPECT_TRUE(this->touch(mapping, static_cast<std::int64_t>(length) - 1));
        this->world_.regions.unmap(mapping.address, mapping.length);
    }
}

TYPED_TEST(RegionMemoryContract, EmptyAndTooLongMemoryMapsToNothing) {
    for (const std::uint64_t length : {0u, 1024u * 1024u + 1}) {
        const auto memory = this->world_.makeMemory(length);
        const SharedMemoryMapping mapping = memory->map();
        EXPECT_EQ(mapping.address, nullptr);
        EXPECT_EQ(mapping.length, 0u);
    }
}

TYPED_TEST(RegionMemoryContract, AccessesBeforeAndPastTheMappingAreSurvived) {
    for (const std::uint64_t length : {1u, 4096u, 4097u, 1024u * 1024u}) {
        const auto memory = this->world_.makeMemory(length);
        const SharedMemoryMapping mapping = memory->map();
        const auto pages = (static_cast<std::int64_t>(length) + this->kPage - 1) / this->kPage * this->kPage;
        EXPECT_TRUE(this->touch(mapping, pages - 1));
        EXPECT_FALSE(this->touch(mapping, pages));
        EXPECT_FALSE(this->last_.finished);
        EXPECT_FALSE(this->touch(mapping, -1));
        EXPECT_TRUE(this->touch(mapping, 0)) << "one fault must not spoil the next access";
        this->world_.regions.unmap(mapping.address, mapping.length);
    }
}

TYPED_TEST(RegionMemoryContract, GivingBackTwiceOrTheUnknownIsHarmless) {
    const auto memory = this->world_.makeMemory(100);
    const SharedMemoryMapping first = memory->map();
    const SharedMemoryMapping second = memory->map();
    std::uint8_t unknown = 0;
    this->world_.regions.unmap(first.address, first.length);
    this->world_.regions.unmap(first.address, first.length);
    this->world_.regions.unmap(&unknown, 1);
    this->world_.regions.unmap(nullptr, 0);
    EXPECT_TRUE(this->touch(second, 0));
    this->world_.regions.unmap(second.address, second.length);
    EXPECT_FALSE(this->touch(second, 0)) << "nothing of the reservation may be left";
}

}  // namespace
}  // namespace quorvix::region_memory_contract
