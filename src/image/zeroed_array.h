// An owning array that begins as zeros. The memory comes from calloc, so that a table whose size a damaged header
// claims costs address space and nothing more until it is really read.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

struct FreeMemory {
    void operator()(void *block) const
    {
        free(block);
    }
};

// count elements of a plain record type, all bytes zero; throws std::bad_alloc when memory can't take them. Move-only:
// a moved-from array is empty.
template <typename Element>
struct ZeroedArray {
    static_assert(std::is_trivially_copyable_v<Element>, "elements are plain bytes");

    ZeroedArray() = default;

    explicit ZeroedArray(uint64_t elementCount)
        : elements(static_cast<Element *>(calloc(elementCount == 0 ? 1 : elementCount, sizeof(Element)))),
          count(elementCount)
    {
        if (elements == nullptr) {
            throw std::bad_alloc();
        }
    }

    ZeroedArray(ZeroedArray &&other) noexcept
        : elements(std::move(other.elements)), count(std::exchange(other.count, 0))
    {
    }

    ZeroedArray &operator=(ZeroedArray &&other) noexcept
    {
        elements = std::move(other.elements);
        count = std::exchange(other.count, 0);
        return *this;
    }

    Element &operator[](uint64_t i)
    {
        return elements.get()[i];
    }

    const Element &operator[](uint64_t i) const
    {
        return elements.get()[i];
    }

    Element *data()
    {
        return elements.get();
    }

    const Element *data() const
    {
        return elements.get();
    }

    uint64_t size() const
    {
        return count;
    }

    std::unique_ptr<Element[], FreeMemory> elements;
    uint64_t count = 0;
};
