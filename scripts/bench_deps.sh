# The Debian packages the benchmarks need beyond those of the build and tests:
# the comparison broker and its client library, gnuplot for the plot, and
# openssl for its speed figures. Sourced by bench.sh after scripts/deps.sh.

BENCH_PACKAGES="mosquitto libmosquitto-dev gnuplot-nox openssl"
