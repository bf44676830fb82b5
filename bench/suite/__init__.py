"""The parts of the benchmarks, and what is made of their figures."""
