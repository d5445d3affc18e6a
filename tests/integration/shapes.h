// The arrays the integration suite runs over: each a name, the options of
// `arraysim init` and the changes made after it. A new shape is one row.
// Every frame has three clone groups, on its first three sources: the
// mirror life with threads takes three sources that have clones.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

namespace cowtest {

struct Shape {
    const char* name;
    std::vector<std::string> init;
    std::vector<std::vector<std::string>> after;  // arraysim commands
};

inline const std::vector<Shape>& shapes() {
    static const std::vector<Shape> all = {
        {"OneFrameOneLun", {"--frames", "1", "--luns", "1", "--clone-groups", "3"}, {}},
        {"TwoFramesFourLuns", {"--frames", "2", "--luns", "4", "--clone-groups", "3"}, {}},
        // The second source of every life is the trespassed one.
        {"FourFramesMultipathTrespassed",
         {"--frames", "4", "--luns", "4", "--clone-groups", "3", "--multipath"},
         {{"set", "lun", "0", "1", "trespassed=1"}}},
        {"SecondFrameDown",
         {"--frames", "2", "--luns", "4", "--clone-groups", "3"},
         {{"set", "frame", "1", "down=1"}}},
        // The lives use the first LUNs; the rest make every listing long.
        {"FiveHundredLuns", {"--frames", "1", "--luns", "500", "--clone-groups", "3"}, {}},
    };
    return all;
}

// Lists and failure messages show the shape by its name.
inline void PrintTo(const Shape& shape, std::ostream* os) {
    *os << shape.name;
}

inline std::string shape_name(const ::testing::TestParamInfo<Shape>& info) {
    return info.param.name;
}

}  // namespace cowtest

// Runs the test suite `suite` (a TestWithParam<Shape>) over every shape.
#define COWTEST_OVER_SHAPES(suite)                                                  \
    INSTANTIATE_TEST_SUITE_P(Shapes, suite, ::testing::ValuesIn(cowtest::shapes()), \
                             cowtest::shape_name)
