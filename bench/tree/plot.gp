# Throughput of each tree operation against the tree size, from the CSV that
# tree_bench writes (one row per size: entries, then entries/s per phase).
#   gnuplot -e "datafile='tree_bench.csv'; outfile='tree_bench.png'" plot.gp
if (!exists("datafile")) datafile = 'tree_bench.csv'
if (!exists("outfile")) outfile = 'tree_bench.png'

set terminal pngcairo size 1100,700 font ",11"
set output outfile
set datafile separator ","
set key outside right top
set title "WzScanDB tree operations: throughput against tree size"
set xlabel "entries in the tree"
set ylabel "entries handled per second"
set logscale x 10
set logscale y 10
set format x "%.0s%c"
set format y "%.0s%c"
set grid xtics ytics mxtics mytics
set xrange [5000:2000000]
set xtics ("10k" 10000, "100k" 100000, "1M" 1000000)

# Targets: the walk at least 1M items/s, building at least 100k entries/s,
# validateTree of 1M entries within 15 s (about 66.7k entries/s).
set arrow from 5000,1e6 to 2000000,1e6 nohead dt 2 lc rgb "#009e73"
set label "walk target" at 1900000,1.12e6 right tc rgb "#009e73"
set arrow from 5000,1e5 to 2000000,1e5 nohead dt 2 lc rgb "#9400d3"
set label "build target" at 1900000,1.12e5 right tc rgb "#9400d3"
set arrow from 5000,66667 to 2000000,66667 nohead dt 2 lc rgb "#e69f00"
set label "validate target" at 1900000,59000 right tc rgb "#e69f00"

# Columns 2 to 11: build, scan, walk, children, runs, validate, updated,
# rename, remove, raw-add; the last column is the peak memory and is not
# plotted. The three baselines (scan, runs, raw-add: the engine alone) are
# drawn dotted, in grey.
phases = "2 4 5 7 8 9 10"
plot for [w in phases] datafile using 1:int(w) with linespoints lw 2 pt 7 ps 1.2 \
         title columnhead(int(w)), \
     datafile using 1:3 with linespoints lw 1 dt 3 lc rgb "#555555" pt 6 ps 1.2 \
         title "scan (baseline)", \
     datafile using 1:6 with linespoints lw 1 dt 3 lc rgb "#555555" pt 8 ps 1.2 \
         title "runs (baseline)", \
     datafile using 1:11 with linespoints lw 1 dt 3 lc rgb "#555555" pt 4 ps 1.2 \
         title "raw-add (baseline)"
