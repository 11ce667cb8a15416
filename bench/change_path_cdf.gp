# The steady-rate latency CDF of the change path (write -> the sleeping
# shadow's callback) beside the raw wake-up floors between the same two
# processes in the same run, from the file `change_path --cdf` writes.
#   gnuplot -e "data='bench/change_path_cdf.dat'; out='bench/change_path_cdf.png'" bench/change_path_cdf.gp
if (!exists("data")) data = "bench/change_path_cdf.dat"
if (!exists("out")) out = "bench/change_path_cdf.png"
set terminal pngcairo size 900,560 font ",11" noenhanced
set output out
set title "Writer -> sleeping reader at 10,000 changes/s: latency CDF"
set xlabel "latency, µs (log scale)"
set ylabel "fraction of samples at or below"
set logscale x
set grid xtics ytics mxtics
set key right bottom
set yrange [0:1]
plot data using 2:1 with lines lw 2 title "write -> shadow callback", \
     data using 3:1 with lines lw 2 title "Unix socket ping (floor)", \
     data using 4:1 with lines lw 2 title "eventfd (floor)"
