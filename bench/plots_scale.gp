# Scale plots (also loaded by plots.gp):
#   gnuplot -e "dir='OUT'; plots='bench/plots'" bench/plots_scale.gp
set terminal pngcairo size 1000,520 font ",10"
set datafile separator "\t"
set grid ytics
unset xlabel
unset ylabel
set key below

# Per stream, ours beside GStreamer's own chain: columns N, reader, CPU per
# stream, threads per stream, RSS per stream, fds per stream.
sel(k, c) = (strcol(2) eq k) ? column(c) : NaN
do for [label in "1080p30 360p30"] {
  set output plots."/scale_".label.".png"
  set multiplot layout 1,2 title "Scale: N RTSP streams of ".label." H.264, each reader in its own process"
  set logscale x 2
  set xlabel "streams"
  set key inside bottom right
  set yrange [0:*]
  set ytics autofreq
  set title "CPU per stream (% of one core)"
  plot for [k in "gst layer node"] dir."/scale_".label.".dat" using 1:(sel(k, 3)) with linespoints title k
  set title "threads per stream"
  plot for [k in "gst layer node"] dir."/scale_".label.".dat" using 1:(sel(k, 4)) with linespoints title k
  unset multiplot
  unset logscale x
}

