# frozen_string_literal: true

require "vorn_rpc/version"
require "vorn_rpc/extension"

module VORN
  Extension.load("vorn_rpc_ext")
end
