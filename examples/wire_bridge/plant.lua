-- The sending side of examples/wire_bridge: a cooling body.
--
-- A body at 90 C cools towards a 20 C room: temperature' = 0.1 * (20 - temperature).
-- "hot" is true while the body is above 60 C. Whenever the host delivers a bit stream to
-- the scheme input port "tx", the Serializer "tx" writes both values into it: the
-- temperature as 64 bits, then "hot" as one bit.
simulation_scheme = {
  blocks = {
    -- [0] the room, the start temperature and the "hot" limit
    { __name = "params", __type = "wBlockConstantsDescriptor",
      values = { { name = "room", type = 1 }, { name = "start", type = 1 }, { name = "limit", type = 1 } },
      __parameters = { room = { value = 20 }, start = { value = 90 }, limit = { value = 60 } } },
    -- [1] rate of change: 0.1 * (room - temperature)
    { __name = "cooling", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "room", coeff = 0.1 }, { name = "temperature", coeff = -0.1 } } },
    -- [2] the temperature itself
    { __name = "temperature", __type = "wBlockIntegratorDescriptor<double>", __parameters = {} },
    -- [3] sends true once at t = 0: loads the temperature from "start". It steps every
    --     0.1 s, so simulate asks to be called every 0.1 s: the rate of the messages.
    { __name = "init", __type = "wBlockDelayTriggerDescriptor",
      __parameters = { dt = { value = 0.1 }, enabled = { value = false }, delay_time = { value = 0 } } },
    -- [4], [5] hot = temperature - limit > 0
    { __name = "above", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "temperature", coeff = 1 }, { name = "limit", coeff = -1 } } },
    { __name = "hot", __type = "wBlockI2ODescriptor<double CMA bool>", __parameters = {} },
    -- [6] writes temperature (double) and hot (bool) into each stream that arrives
    { __name = "tx", __type = "wBlockWireSerializerDescriptor", __parameters = {},
      wires = { { name = "temperature", type = 2 }, { name = "hot", type = 1 } } },
  },
  solver = { __type = "wSolverExplEulerDescriptor", H = 0.01 },
  io = {
    inputWires = {},
    inputPorts = {},
    outputWires = {},
    outputPorts = { { name = "tx", type = 5 } },
  },
  connections = {
    { output_block = 0, output_lead = "room", input_block = 1, input_lead = "room", port = false },
    { output_block = 2, output_lead = "output", input_block = 1, input_lead = "temperature", port = false },
    { output_block = 1, output_lead = "output", input_block = 2, input_lead = "input", port = false },
    { output_block = 0, output_lead = "start", input_block = 2, input_lead = "output.initial", port = false },
    { output_block = 3, output_lead = "timed_out", input_block = -665, input_lead = "reset_diff_state", port = true },
    { output_block = 2, output_lead = "output", input_block = 4, input_lead = "temperature", port = false },
    { output_block = 0, output_lead = "limit", input_block = 4, input_lead = "limit", port = false },
    { output_block = 4, output_lead = "output", input_block = 5, input_lead = "input", port = false },
    { output_block = 2, output_lead = "output", input_block = 6, input_lead = "temperature", port = false },
    { output_block = 5, output_lead = "output", input_block = 6, input_lead = "hot", port = false },
    { output_block = -666, output_lead = "tx", input_block = 6, input_lead = "stream", port = true },
  },
}
