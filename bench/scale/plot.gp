# Microseconds per entry of every phase against the tree size, from the
# summary that `scale_bench summarize` writes (one row per size: entries,
# then the median us/entry of each phase). Flat lines mean a cost per entry
# that does not grow with the tree.
#   gnuplot -e "datafile='scale_summary.csv'; outfile='scale.png'" plot.gp
if (!exists("datafile")) datafile = 'scale_summary.csv'
if (!exists("outfile")) outfile = 'scale.png'

set terminal pngcairo size 1100,700 font ",11"
set output outfile
set datafile separator ","
set key outside right top
set title "WzScanDB tree operations: microseconds per entry against tree size (median of runs)"
set xlabel "entries in the tree"
set ylabel "microseconds per entry"
set logscale x 10
set logscale y 10
set format x "%.0s%c"
set grid xtics ytics mxtics mytics
set xrange [500000:100000000]
set xtics ("1M" 1000000, "5M" 5000000, "10M" 10000000, "50M" 50000000)

stats datafile using 1 skip 1 nooutput
phases = int(STATS_columns)
plot for [c = 2:phases] datafile using 1:c with linespoints lw 2 pt 7 ps 1.3 \
     title columnhead(c)
