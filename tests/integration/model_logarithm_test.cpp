// The model's logarithm against correctly rounded values that neither the model nor the program computed.

#include "support/model/logarithm.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace tessel::model {
namespace {

TEST(ModelLogarithm, PointsOfEveryMagnitude_AreCorrectlyRounded) {
    std::ifstream file(TESSEL_SOURCE_DIR "/tests/golden/natural_log.txt");
    int points = 0;
    for (std::string line; std::getline(file, line); ++points) {
        std::istringstream words(line);
        std::string x, nearest;
        words >> x >> nearest;
        ASSERT_EQ(logarithm(std::strtod(x.c_str(), nullptr)), std::strtod(nearest.c_str(), nullptr))
            << "log " << x;
    }
    EXPECT_GT(points, 1500);
}

}  // namespace
}  // namespace tessel::model
