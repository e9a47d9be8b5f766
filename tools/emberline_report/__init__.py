"""The companion of emberline: reads its CSV and JSON-lines report files and summarises, plots,
compares, traces and stores them. `tools/emberline-report` is its command; `reading` is also
what other scripts of the project use to read a report file."""

PROG = "emberline-report"
