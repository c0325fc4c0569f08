-- Overrides for examples/speed_control.lua: values for the parameters that the scheme
-- leaves open, one table per block name.
overrides = {
  targets = { speed_ref = 100 },  -- rpm
  profile = { K_t = 50 },         -- rpm/s
}
