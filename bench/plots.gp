# Plots of the qo-bench data files:
#   gnuplot -e "dir='OUT'; plots='bench/plots'" bench/plots.gp
set terminal pngcairo size 1000,520 font ",10"
set datafile separator "\t"
set grid ytics
set key below

set output plots."/throughput.png"
set title "File throughput: access units per second / in-process GStreamer parser chain"
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set yrange [0:*]
set ytics 0.2
plot for [c=2:7] dir."/throughput.dat" using c:xtic(1) title columnheader(c)

set output plots."/startstop.png"
set title "Start and stop (ms, log scale, lower is better)"
set logscale y
set yrange [0.5:*]
set ytics autofreq
set bmargin 12
set xtics rotate by -25 left
plot dir."/startstop.dat" using 2:xtic(1) title columnheader(2), \
     "" using 3 title columnheader(3)
set xtics norotate
set bmargin
unset logscale y
unset style

set output plots."/latency.png"
set title "RTSP latency: sender NTP time to frame in the host's hands"
set xlabel "latency (ms)"
set ylabel "fraction of frames"
set logscale x
set yrange [0:1]
set ytics 0.1
plot for [i=0:3] dir."/latency.dat" index i using 1:2 with steps lw 2 title columnheader(1)
unset logscale x
unset xlabel
unset ylabel

set output plots."/churn.png"
set multiplot layout 1,3 title "Churn: create/open/first frame/close/destroy cycles"
set xlabel "cycle"
set key inside bottom right opaque
set title "RSS (MiB)"
plot for [i=0:1] dir."/churn.dat" index i using 1:2 with lines lw 2 title columnheader(1)
set title "open descriptors"
plot for [i=0:1] dir."/churn.dat" index i using 1:3 with lines lw 2 title columnheader(1)
set title "threads"
plot for [i=0:1] dir."/churn.dat" index i using 1:4 with lines lw 2 title columnheader(1)
unset multiplot

load "bench/plots_scale.gp"
