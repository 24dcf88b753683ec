// SPDX-License-Identifier: MIT
#pragma once

#include "model/Step.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/** What sequences are made from. Behind its end come zeros. */
class Bytes
{
public:
    virtual ~Bytes() = default;
    virtual std::uint8_t next() = 0;
    virtual bool atEnd() const = 0;

    /** A number below @p limit, which is at most 256. */
    std::uint8_t below(std::size_t limit) { return static_cast<std::uint8_t>(next() * limit / 256); }
    bool oneIn(std::size_t number) { return below(number) == 1 % number; }
};

/** Bytes without an end that depend on nothing but the seed. */
class SeededBytes : public Bytes
{
public:
    explicit SeededBytes(std::uint64_t seed) : m_state(seed) {}
    std::uint8_t next() override;
    bool atEnd() const override { return false; }

private:
    std::uint64_t m_state;
    std::uint64_t m_word = 0;
    int m_left = 0;
};

/** The bytes that a fuzzer made. */
class GivenBytes : public Bytes
{
public:
    GivenBytes(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}
    std::uint8_t next() override { return m_place < m_size ? m_data[m_place++] : 0; }
    bool atEnd() const override { return m_place >= m_size; }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_place = 0;
};

struct Sequence
{
    static const std::size_t MAX_STEPS = 200;

    /** A new Avahi object gets the address of the one of its kind that was freed last. */
    bool reusesAddresses = false;
    std::vector<Step> steps;
};

/** Up to MAX_STEPS steps, fewer when the bytes end. */
Sequence sequenceOf(Bytes& bytes);

std::string describe(const Sequence& sequence);
