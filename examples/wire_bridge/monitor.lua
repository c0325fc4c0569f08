-- The receiving side of examples/wire_bridge: a display of the plant's temperature.
--
-- Whenever the host delivers a bit stream to the scheme input port "rx", the
-- Deserializer "rx" reads the temperature (64 bits) and "hot" (one bit) from it, in the
-- order and with the types of the plant's Serializer. The blocks fed by it are evaluated
-- again at the next simulate: "fahrenheit" = 1.8 * temperature + 32, "ok" = not hot.
simulation_scheme = {
  blocks = {
    -- [0] reads the plant's values from each stream that arrives
    { __name = "rx", __type = "wBlockWireDeserializerDescriptor", __parameters = {},
      wires = { { name = "temperature", type = 2 }, { name = "hot", type = 1 } } },
    -- [1], [2] fahrenheit = 1.8 * temperature + 32
    { __name = "offset", __type = "wBlockConstantsDescriptor",
      values = { { name = "f0", type = 1 } }, __parameters = { f0 = { value = 32 } } },
    { __name = "fahrenheit", __type = "wBlockSummatorDescriptor<double>", __parameters = {},
      inputs = { { name = "celsius", coeff = 1.8 }, { name = "f0", coeff = 1 } } },
    -- [3] ok = not hot
    { __name = "ok", __type = "wBlockNOTDescriptor", __parameters = {} },
  },
  io = {
    inputWires = {
      { name = "fahrenheit", type = 2 }, { name = "hot", type = 1 }, { name = "ok", type = 1 },
    },
    inputPorts = {},
    outputWires = {},
    outputPorts = { { name = "rx", type = 5 } },
  },
  connections = {
    { output_block = -666, output_lead = "rx", input_block = 0, input_lead = "stream", port = true },
    { output_block = 0, output_lead = "temperature", input_block = 2, input_lead = "celsius", port = false },
    { output_block = 1, output_lead = "f0", input_block = 2, input_lead = "f0", port = false },
    { output_block = 0, output_lead = "hot", input_block = 3, input_lead = "input", port = false },
    { output_block = 2, output_lead = "output", input_block = -666, input_lead = "fahrenheit", port = false },
    { output_block = 0, output_lead = "hot", input_block = -666, input_lead = "hot", port = false },
    { output_block = 3, output_lead = "output", input_block = -666, input_lead = "ok", port = false },
  },
}
