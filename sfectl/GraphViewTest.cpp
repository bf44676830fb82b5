#include "sfectl/GraphView.h"

#include <gtest/gtest.h>

#include "sfectl/Rates.h"

namespace Sfectl {
namespace {

TEST(Rates, haveThreeDigitsAndAUnit) {
  EXPECT_EQ(rateText(0), "0");
  EXPECT_EQ(rateText(0.3), "0.3");
  EXPECT_EQ(rateText(42.4), "42");
  EXPECT_EQ(rateText(999.4), "999");
  EXPECT_EQ(rateText(999.6), "1.0k");
  EXPECT_EQ(rateText(12'345), "12.3k");
  EXPECT_EQ(rateText(123'456), "123k");
  EXPECT_EQ(rateText(2e9), "2.0G");
  EXPECT_EQ(rateText(1e30), "1000000000000E");
}

TEST(Rates, countFromZeroAfterARestart) {
  EXPECT_DOUBLE_EQ(rateOf(100, 150, 0.5), 100);
  EXPECT_DOUBLE_EQ(rateOf(100, 30, 1), 30);
  EXPECT_DOUBLE_EQ(rateOf(100, 150, 0), 0);
}

Graph sample() {
  return {
      {{"rx1", "PortInc"}, {"rx2", "PortInc"}, {"in", "IntfIn"}, {"out", "IntfOut"}, {"s", "Sink"}},
      {{"in", 2, "s", 0, {}},
       {"in", 0, "out", 0, GraphRate{1500, 1.5e6}},
       {"rx1", 0, "in", 0, {}},
       {"rx2", 0, "in", 0, {}},
       {"out", 7, "s", 0, {}}}};
}

TEST(GraphView, isATreeFromEachBeginning) {
  EXPECT_EQ(graphText(sample()),
            "rx1 (PortInc)\n"
            "`- 0 -> in:0 (IntfIn)\n"
            "   |- 0 -> out:0 (IntfOut)  1.5k packets/s, 1.5M bit/s\n"
            "   |  `- 7 -> s:0 (Sink)\n"
            "   `- 2 -> s:0 (Sink)\n"
            "rx2 (PortInc)\n"
            "`- 0 -> in:0 (see above)\n");
}

TEST(GraphView, showsEachConnectionOfARingOnce) {
  const Graph ring{{{"a", "A"}, {"b", "B"}}, {{"a", 0, "b", 0, {}}, {"b", 0, "a", 0, {}}}};
  EXPECT_EQ(graphText(ring),
            "a (A)\n"
            "`- 0 -> b:0 (B)\n"
            "   `- 0 -> a:0 (see above)\n");
}

TEST(GraphView, quotesNamesForGraphviz) {
  const Graph graph{{{"a\"\\\x1b", "A"}, {"b", "B"}}, {{"a\"\\\x1b", 1, "b", 2, GraphRate{1, 2}}}};
  EXPECT_EQ(graphDot(graph),
            "digraph sfe {\n  rankdir=LR;\n  node [shape=box, fontname=\"sans-serif\"];\n"
            "  edge [fontname=\"sans-serif\", fontsize=10];\n"
            "  \"a\\\"\\\\?\" [label=\"a\\\"\\\\?\\n(A)\"];\n"
            "  \"b\" [label=\"b\\n(B)\"];\n"
            "  \"a\\\"\\\\?\" -> \"b\" [taillabel=\"1\", headlabel=\"2\", "
            "label=\"1.0 packets/s, 2.0 bit/s\"];\n}\n");
  EXPECT_EQ(graphText({{{"\xc3\xa9", "A"}}, {}}), "?? (A)\n");
}

TEST(GraphView, hasNumbersForPrograms) {
  const Graph graph{{{"a", "A"}}, {{"a", 1, "b", 2, GraphRate{1.5, 2}}}};
  EXPECT_EQ(dumpJson(graphJson(graph)),
            R"({"modules":[{"name":"a","class":"A"}],"edges":[{"from":"a","ogate":1,"to":"b",)"
            R"("igate":2,"packets_per_second":1.5,"bits_per_second":2.0}]})");
}

}  // namespace
}  // namespace Sfectl
