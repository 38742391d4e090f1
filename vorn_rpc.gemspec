# frozen_string_literal: true

require File.expand_path("lib/vorn_rpc/version", __dir__)

Gem::Specification.new do |gem|
  gem.name = "vorn_rpc"
  gem.version = VORN::VERSION
  gem.authors = ["the Vorn RPC authors"]
  gem.license = "MIT"
  gem.summary = "Compact binary messages for remote procedure calls"
  gem.description = "Packet buffers, frames and a codec that carry nil, booleans, integers, floats, strings, " \
                    "symbols, arrays and hashes between processes. Written in C++17."
  gem.required_ruby_version = ">= 2.2"
  gem.extensions = ["ext/extconf.rb", "stream_ext/extconf.rb"]
  gem.require_paths = ["lib"]

  # Every source by name: what is not listed is not shipped, whatever lies in the checkout. bin/test gem fails when
  # a source is missing here. The extensions are compiled of folders that stay side by side.
  gem.files = %w[
    CHANGELOG.md
    LICENSE
    README.md
    lib/vorn_rpc.rb
    lib/vorn_rpc/extension.rb
    lib/vorn_rpc/packing.rb
    lib/vorn_rpc/packing/errors.rb
    lib/vorn_rpc/packing/ready_made.rb
    lib/vorn_rpc/rpc.rb
    lib/vorn_rpc/rpc/address.rb
    lib/vorn_rpc/rpc/client.rb
    lib/vorn_rpc/rpc/client_connection.rb
    lib/vorn_rpc/rpc/clock.rb
    lib/vorn_rpc/rpc/envelope.rb
    lib/vorn_rpc/rpc/errors.rb
    lib/vorn_rpc/rpc/interrupts.rb
    lib/vorn_rpc/rpc/method_table.rb
    lib/vorn_rpc/rpc/patience.rb
    lib/vorn_rpc/rpc/server.rb
    lib/vorn_rpc/rpc/server_connection.rb
    lib/vorn_rpc/rpc/workers.rb
    lib/vorn_rpc/stream.rb
    lib/vorn_rpc/stream/decoder.rb
    lib/vorn_rpc/stream/encoder.rb
    lib/vorn_rpc/stream/errors.rb
    lib/vorn_rpc/stream/reader.rb
    lib/vorn_rpc/stream/writer.rb
    lib/vorn_rpc/version.rb
    sig/vorn_rpc.rbs
    sig/vorn_rpc_packing.rbs
    sig/vorn_rpc_rpc.rbs
    sig/vorn_rpc_stream.rbs
    ext/arguments.h
    ext/buffer_handle.cc
    ext/buffer_handle.h
    ext/extconf.rb
    ext/gc_memory_usage.cc
    ext/key_cache.cc
    ext/key_cache.h
    ext/machine_stack.cc
    ext/machine_stack.h
    ext/member_counts.cc
    ext/member_counts.h
    ext/native_guard.cc
    ext/native_guard.h
    ext/object_decoder.cc
    ext/object_decoder.h
    ext/object_serializer.cc
    ext/object_serializer.h
    ext/overridden_each.cc
    ext/overridden_each.h
    ext/packet_buf_class.cc
    ext/packet_buf_codec.cc
    ext/packet_buf_codec.h
    ext/packet_frame_class.cc
    ext/packet_frame_in_class.cc
    ext/packet_frame_out_class.cc
    ext/ruby_compat.h
    ext/vorn_rpc_ext.cc
    ext/vorn_rpc_ext.h
    ext/vorn_rpc_ext.map
    proto/array_counts.h
    proto/byte_order.h
    proto/export.h
    proto/frame_header.cc
    proto/frame_header.h
    proto/packet_buf.cc
    proto/packet_buf.h
    proto/packet_frame.cc
    proto/packet_frame.h
    proto/packet_frame_in.cc
    proto/packet_frame_in.h
    proto/packet_frame_out.cc
    proto/packet_frame_out.h
    proto/transport_type.h
    proto/trusting_reader.h
    proto/value_check.cc
    proto/value_check.h
    proto/value_wire.h
    proto/varint.h
    proto/vorn_exception.cc
    proto/vorn_exception.h
    proto/vorn_proto_exception.h
    proto/vorn_runtime_error.h
    proto/wire_reader.h
    proto/wire_writer.h
    stream_ext/extconf.rb
    stream_ext/frame_input.cc
    stream_ext/frame_input.h
    stream_ext/integer_check.cc
    stream_ext/integer_check.h
    stream_ext/vorn_rpc_stream_ext.cc
    vobject/data_types.h
    vobject/deep_copy.cc
    vobject/extract_messages.cc
    vobject/extract_messages.h
    vobject/render.cc
    vobject/render.h
    vobject/string_ref.h
    vobject/symbol_index.cc
    vobject/symbol_index.h
    vobject/symbol_table.cc
    vobject/symbol_table.h
    vobject/vobject.cc
    vobject/vobject.h
    vobject/vobject_access.cc
    vobject/vobject_container.cc
    vobject/vobject_deserialize.cc
    vobject/vobject_diff.cc
    vobject/vobject_equality.cc
    vobject/vobject_internal.h
    vobject/vobject_merge.cc
    vobject/vobject_payload.cc
    vobject/vobject_payload.h
    vobject/vobject_reference.cc
    vobject/vobject_serialize.cc
    vobject/vobject_string.h
    vobject/vobject_symbol.cc
    vobject/vobject_udt.h
  ]
  # README.md links to the documents, and these to one another and to the examples. bin/test gem follows the links.
  gem.files += Dir.chdir(__dir__) do
    Dir["{CONTRIBUTING,SECURITY}.md", "{docs,examples,fuzz,test,tools}/**/*.md", "docs/**/*.svg",
        "examples/**/*.{rb,py,cc,h,cfg}", "tools/wireshark/vorn.lua"]
  end
end
