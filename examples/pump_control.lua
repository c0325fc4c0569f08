-- Pump station of a wet well, controlled by a state machine written in Lua.
--
-- A wet well of 4 m^2 fills with a base inflow and, around t = 1 h, a storm (script
-- block "inflow", scripts/storm_inflow.lua). Two pumps of 0.03 m^3/s each drain it,
-- switched by the duty/assist state machine of block "station"
-- (scripts/pump_station.lua). Both scripts take their numbers as ${name} parameters,
-- set below in each block's __parameters (or from an overrides file).
--
--   level' = (q_in - q_out) / 4,   level(0) = 0.5 m
--
-- Run:  vandrel run examples/pump_control.lua --until 7200 --every 30 --plot pump.png
-- The scripts need no file or process access: --safe-scripts runs them as well.
simulation_scheme = {
  blocks = {
    -- [0] initial level
    { __name = "params", __type = "wBlockConstantsDescriptor",
      values = { { name = "h0", type = 1 } },
      __parameters = { h0 = { value = 0.5 } } },
    -- [1] inflow: base flow plus a storm
    { __name = "inflow", __type = "wBlockLuaDescriptor",
      inputs = {},
      outputs = { { name = "q_in", type = 2 } },
      outPorts = {},
      inPorts = {},
      additional_params = {
        { name = "base_flow", type = 1 }, { name = "peak_flow", type = 1 },
        { name = "t_peak", type = 1 }, { name = "width", type = 1 }, { name = "dt", type = 1 },
      },
      __parameters = {
        ["File name"] = { value = "scripts/storm_inflow.lua" },
        base_flow = { value = 0.01 }, peak_flow = { value = 0.06 },
        t_peak = { value = 3600 }, width = { value = 900 }, dt = { value = 10 },
      } },
    -- [2] the pump station's controller
    { __name = "station", __type = "wBlockLuaDescriptor",
      inputs = { { name = "level", type = 2 } },
      outputs = {
        { name = "q_out", type = 2 }, { name = "pumps", type = 0 },
        { name = "state", type = 0 }, { name = "duty", type = 0 },
      },
      outPorts = { { name = "alarm", type = 1 } },
      inPorts = {},
      additional_params = {
        { name = "start_level", type = 1 }, { name = "stop_level", type = 1 },
        { name = "assist_level", type = 1 }, { name = "assist_delay", type = 1 },
        { name = "alarm_level", type = 1 }, { name = "min_run", type = 1 },
        { name = "pump_flow", type = 1 }, { name = "dt", type = 1 },
      },
      __parameters = {
        ["File name"] = { value = "scripts/pump_station.lua" },
        start_level = { value = 1.2 }, stop_level = { value = 0.4 },
        assist_level = { value = 1.8 }, assist_delay = { value = 60 },
        alarm_level = { value = 2.8 }, min_run = { value = 120 },
        pump_flow = { value = 0.03 }, dt = { value = 5 },
      } },
    -- [3] level rate: (q_in - q_out) / 4
    { __name = "balance", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "q_in", coeff = 0.25 }, { name = "q_out", coeff = -0.25 } } },
    -- [4] the level
    { __name = "level", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
    -- [5] sends true once at t = 0: loads the level from its initial value
    { __name = "start", __type = "wBlockDelayTriggerDescriptor",
      __parameters = { dt = { value = 86400 }, enabled = { value = false }, delay_time = { value = 0 } } },
  },
  solver = { __type = "wSolverExplEulerDescriptor", H = 1 },
  io = {
    inputWires = {
      { name = "level", type = 2 }, { name = "q_in", type = 2 }, { name = "q_out", type = 2 },
      { name = "pumps", type = 0 }, { name = "state", type = 0 },
    },
    inputPorts = { { name = "alarm", type = 1 } },
    outputWires = {},
    outputPorts = {},
  },
  connections = {
    { output_block = 1, output_lead = "q_in", input_block = 3, input_lead = "q_in", port = false },
    { output_block = 2, output_lead = "q_out", input_block = 3, input_lead = "q_out", port = false },
    { output_block = 3, output_lead = "output", input_block = 4, input_lead = "input", port = false },
    { output_block = 0, output_lead = "h0", input_block = 4, input_lead = "output.initial", port = false },
    { output_block = 4, output_lead = "output", input_block = 2, input_lead = "level", port = false },
    { output_block = 5, output_lead = "timed_out", input_block = -665, input_lead = "reset_diff_state", port = true },
    { output_block = 4, output_lead = "output", input_block = -666, input_lead = "level", port = false },
    { output_block = 1, output_lead = "q_in", input_block = -666, input_lead = "q_in", port = false },
    { output_block = 2, output_lead = "q_out", input_block = -666, input_lead = "q_out", port = false },
    { output_block = 2, output_lead = "pumps", input_block = -666, input_lead = "pumps", port = false },
    { output_block = 2, output_lead = "state", input_block = -666, input_lead = "state", port = false },
    { output_block = 2, output_lead = "alarm", input_block = -666, input_lead = "alarm", port = true },
  },
}
