# plot.gp - the plots beside RESULTS.md, from the driver's figures in the current folder.
set terminal svg size 900,420 font "sans,13" background "#ffffff"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 noborder
set boxwidth 0.9
set grid ytics lc "#dddddd"
set key at screen 0.5,0.07 center center horizontal maxrows 2 width -3 Left reverse samplen 2
set bmargin 6
set xrange [-0.6:5.6]
set xtics scale 0
array names[7] = ["raw TCP", "floor", "library", "library, heartbeats", "libzmq", "nanomsg", "nng"]
array colours[7] = ["#999999", "#555555", "#d1495b", "#edae49", "#00798c", "#30638e", "#7fb685"]

set output "roundtrip.svg"
set title "Round trip, median, as a multiple of raw TCP's (less is better)"
set yrange [0:*]
plot for [i=1:7] "roundtrip.dat" using i+1:xtic(1) title names[i] lc rgb colours[i]

set output "oneway.svg"
set title "One way, messages a second, as a multiple of raw TCP's (more is better)"
set logscale y
set yrange [0.01:*]
plot for [i=1:7] "oneway.dat" using i+1:xtic(1) title names[i] lc rgb colours[i]

set output "growth.svg"
set title "Round trip of 5 B on one core, by number of clients (less is better)"
set key inside center bottom vertical maxrows 3
set bmargin 3.5
set xlabel "clients"
set ylabel "p50, µs"
set logscale x
unset logscale y
set yrange [0:*]
set xrange [12:12500]
set xtics scale 1
plot for [i=2:4] "growth.dat" using 1:i:xtic(1) with linespoints lw 2 pt 7 lc rgb colours[i] \
    title names[i]
