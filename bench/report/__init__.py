"""What script/bench makes of the benchmarks' figures: a table, curves, and a section of docs/performance.md."""
