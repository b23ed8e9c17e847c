# Draws docs/performance.svg from the rows of the table that differ in the number of subscribers.
rows = "<sed -En 's/^\\| Sync publish to ([0-9]+) \\|/\\1 |/p' build/bench/tables.md"
set datafile separator "|"
set terminal svg size 720,400 font "sans-serif,15" background "white"
set output "docs/performance.svg"
set logscale xy
set xrange [0.9:256]
set yrange [20:*]
set xtics out nomirror (1, 2, 4, 8, 16, 32, 64, 128, 256)
set ytics out nomirror (20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, 20000)
set border 3
set grid linetype 1 linecolor "#dddddd"
set rmargin 17
set xlabel "subscribers"; set ylabel "one Sync publication, ns"
set style line 1 linewidth 2.5 linecolor "#b04a00" pointtype 5 dashtype 2
set style line 2 linewidth 2.5 linecolor "#0060a8" pointtype 7
plot rows using 1:4 with linespoints linestyle 1 title "  Boost.Signals2" at end, \
     rows using 1:3 with linespoints linestyle 2 title "  Zorvix" at end
