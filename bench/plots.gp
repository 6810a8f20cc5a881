# Draws the plots of docs/performance.md from the data files that report.py has written.
set terminal svg size 760,460 font "sans-serif,13" background "white"
set key top left reverse Left
set grid

set logscale xy
set xlabel "payload, bytes"
set ylabel "round trip, µs"
set xrange [1:*]
set format x "10^{%T}"
set output "requests.svg"
set title "Requests, asked of one partner"
plot "requests-channel.dat" with linespoints lw 2 title "channel", \
     "requests-bulk.dat" with linespoints lw 2 title "channel, bulk", \
     "requests-gdbus.dat" with linespoints title "GDBus", \
     "requests-sdbus.dat" with linespoints title "sd-bus", \
     "requests-sdbuscpp.dat" with linespoints title "sdbus-c++", \
     "requests-socket.dat" with linespoints title "socket pair, no bus"

set output "serving.svg"
set title "Requests, served to one caller on sd-bus"
plot "serving-channel.dat" with linespoints lw 2 title "channel", \
     "serving-bulk.dat" with linespoints lw 2 title "channel, bulk", \
     "serving-gdbus.dat" with linespoints title "GDBus", \
     "serving-sdbus.dat" with linespoints title "sd-bus", \
     "serving-sdbuscpp.dat" with linespoints title "sdbus-c++"

set output "pairs.svg"
set title "Requests between two ends of the same kind"
plot "pairs-either.dat" with linespoints lw 2 title "tevrol::Channel", \
     "pairs-direct.dat" with linespoints lw 2 title "its direct link", \
     "pairs-gdbus.dat" with linespoints title "GDBus", \
     "pairs-sdbus.dat" with linespoints title "sd-bus", \
     "pairs-sdbuscpp.dat" with linespoints title "sdbus-c++", \
     "pairs-sdbuspair.dat" with linespoints title "sd-bus on a socket pair, no bus"

unset logscale
set logscale x
set format x "%g"
set yrange [0:*]
set xlabel "channels in one process"
set ylabel "µs, KiB"
set key center right
set output "scale.svg"
set title "Cost per channel"
plot "scale.dat" using 1:2 with linespoints lw 2 title "time to ready, each (µs)", \
     "scale.dat" using 1:3 with linespoints title "request, others idle (µs)", \
     "scale.dat" using 1:4 with linespoints title "request, all busy (µs)", \
     "scale.dat" using 1:5 with linespoints title "heap, each (KiB)"
