# Plots of the peer benchmark: lookup hit and insert ns/op against N for
# every system, from the data flowtables-peers writes.
#   gnuplot -e "datadir='bench'; outdir='bench'" bench/plot.gp
if (!exists("datadir")) datadir = "."
if (!exists("outdir")) outdir = datadir
set terminal pngcairo size 900,560 font ",11" noenhanced
set datafile missing "-"
set key outside right top
set logscale xy
set grid xtics ytics mytics
set xlabel "N (entries)"
set format x "10^{%L}"
set xtics ("10^4" 10000, "10^5" 100000, "10^6" 1000000)
set xrange [7000:1400000]
stats datadir."/peers-lookup.dat" skip 1 nooutput
columns = STATS_columns

set output outdir."/peers-lookup.png"
set title "Reader lookup hit, ns per lookup (value copied out), no writer"
set ylabel "ns per lookup"
plot for [c=2:columns] datadir."/peers-lookup.dat" using 1:c with linespoints lw 2 pt 7 title columnheader(c)

set output outdir."/peers-insert.png"
set title "Writer insert, ns per insert into a growing table"
set ylabel "ns per insert"
plot for [c=2:columns] datadir."/peers-insert.dat" using 1:c with linespoints lw 2 pt 7 title columnheader(c)
