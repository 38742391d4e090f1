# frozen_string_literal: true

# Builds vorn_rpc_stream_ext, the native part of lib/vorn_rpc/stream.rb, as ext/extconf.rb builds the extension itself:
# with the same options, probes and flags.

TARGET = "vorn_rpc_stream_ext"
SOURCES = %w[stream_ext/*.cc ext/machine_stack.cc proto/frame_header.cc].freeze
load File.expand_path("../ext/extconf.rb", __dir__)
