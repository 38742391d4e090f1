$LOAD_PATH.unshift(File.expand_path('../../../lib', __FILE__))
$LOAD_PATH.unshift(File.expand_path('../..', __FILE__))

require 'minitest/autorun'
require 'vorn_rpc_ext'
