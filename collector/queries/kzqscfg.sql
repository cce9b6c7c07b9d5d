-- kzqscfg: server configuration options. One row per option of sys.configurations
-- (a fixed list of under a hundred).
-- Reads: sys.configurations.
-- Needs: nothing beyond a login (the view is visible to public).
-- PARMTYPE: dynamic (takes effect at RECONFIGURE) or static (at restart). CONFIGVAL: the
-- configured value, RUNVALUE: the value in use.
SELECT
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    name AS CONFIGNAME,
    CASE WHEN is_dynamic = 1 THEN N'dynamic' ELSE N'static' END AS PARMTYPE,
    CAST(value AS nvarchar(12)) AS CONFIGVAL,
    CAST(value_in_use AS nvarchar(12)) AS RUNVALUE,
    CAST(minimum AS nvarchar(12)) AS MINVAL,
    CAST(maximum AS nvarchar(12)) AS MAXVAL
FROM sys.configurations
ORDER BY name;
