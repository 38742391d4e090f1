# frozen_string_literal: true

require "vorn_rpc/version"
require "vorn_rpc_ext"
